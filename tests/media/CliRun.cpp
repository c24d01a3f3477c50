#include "CliRun.h"

#include <array>
#include <cstdio>
#include <sys/wait.h>

namespace testsupport {

namespace {
CliRun runShell(std::string const& cmd)
{
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return {-1, ""};
    std::string out;
    std::array<char, 4096> buf{};
    std::size_t n;
    while ((n = std::fread(buf.data(), 1, buf.size(), p)) > 0) out.append(buf.data(), n);
    int st = pclose(p);
    return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, out};
}
} // namespace

CliRun cli(std::string const& args) { return runShell(std::string(DUBMATCH_CLI) + " " + args + " 2>&1"); }

CliRun cliStdout(std::string const& args) { return runShell(std::string(DUBMATCH_CLI) + " " + args + " 2>/dev/null"); }

} // namespace testsupport
