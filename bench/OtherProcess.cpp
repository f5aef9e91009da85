#include "bench/OtherProcess.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace eas::bench {

OtherProcess::OtherProcess(const std::vector<std::string>& arguments, const std::string& sysini) {
    int requests[2], answers[2];
    if (::pipe(requests) != 0 || ::pipe(answers) != 0)
        throw std::runtime_error("pipe");
    pid_ = ::fork();
    if (pid_ == 0) {
        ::dup2(requests[0], 0);
        ::dup2(answers[1], 1);
        for (const int fd : {requests[0], requests[1], answers[0], answers[1]})
            ::close(fd);
        ::setenv("ODBCSYSINI", sysini.c_str(), 1);
        const auto text = [](const std::string& s) { return const_cast<char*>(s.c_str()); };
        const std::string program = "bench";
        std::vector<char*> argv{text(program)};
        for (const std::string& argument : arguments)
            argv.push_back(text(argument));
        argv.push_back(nullptr);
        ::execv("/proc/self/exe", argv.data());
        ::_exit(127);
    }
    ::close(requests[0]);
    ::close(answers[1]);
    requests_ = requests[1];
    answers_ = answers[0];
}

OtherProcess::~OtherProcess() {
    ::close(requests_);
    ::close(answers_);
    ::waitpid(pid_, nullptr, 0);
}

double OtherProcess::run() {
    double answer = 0;
    if (::write(requests_, "!", 1) != 1 ||
        ::read(answers_, &answer, sizeof answer) != sizeof answer)
        throw std::runtime_error("the other process failed");
    return answer;
}

int serve(const std::function<double()>& answer) {
    char request = 0;
    while (::read(0, &request, 1) == 1) {
        const double figure = answer();
        if (::write(1, &figure, sizeof figure) != sizeof figure)
            return 1;
    }
    return 0;
}

}  // namespace eas::bench
