// dubmatch-cli as the tests run it.
#pragma once

#include <string>

namespace testsupport {

// dubmatch-cli run with `args` (already quoted for the shell): its exit
// status (-1 when it did not exit) and its output and errors together.
struct CliRun {
    int status;
    std::string output;
};
CliRun cli(std::string const& args);
// The same, with only standard output in `output` (errors are dropped).
CliRun cliStdout(std::string const& args);

} // namespace testsupport
