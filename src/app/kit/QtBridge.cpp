#include "QtBridge.h"

#include <ostream>

std::ostream& operator<<(std::ostream& os, QString const& s) { return os << s.toStdString(); }
