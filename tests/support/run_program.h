// Running a built program as its own process in the tests.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tests/support/scratch_folder.h"

namespace testsupport {

// A run's exit status (-1 when it did not exit) and what it printed.
struct Output {
    int status;
    std::string out, err;
};

// Runs `binary` in `folder`, its output kept in two files there.  No shell:
// the arguments reach the program as they are.
inline Output runProgram(const char* binary, const std::string& folder, const std::vector<std::string>& args) {
    const std::string out = folder + "/.stdout", err = folder + "/.stderr";
    std::fflush(nullptr);  // nothing buffered here may be written twice
    const pid_t child = fork();
    if (child == 0) {
        std::vector<char*> argv{const_cast<char*>(binary)};
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        if (!std::freopen(out.c_str(), "w", stdout) || !std::freopen(err.c_str(), "w", stderr) ||
            chdir(folder.c_str()) != 0)
            _exit(127);
        execv(binary, argv.data());
        _exit(127);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(out), readFile(err)};
}

}  // namespace testsupport
