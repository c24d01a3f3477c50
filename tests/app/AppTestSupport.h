// Shared helpers of the application's tests.
#pragma once

#include "kit/Alert.h"

#include <vector>

// Records the alerts shown while it lives and answers each with `answer`
// (the index of the button chosen).
struct AlertRecorder {
    std::vector<kit::AlertSpec> shown;
    int answer = 0;
    AlertRecorder()
    {
        kit::setAlertResponder([this](kit::AlertSpec const& a) {
            shown.push_back(a);
            return answer;
        });
    }
    ~AlertRecorder() { kit::setAlertResponder(nullptr); }
    AlertRecorder(AlertRecorder const&) = delete;
    AlertRecorder& operator=(AlertRecorder const&) = delete;
};
