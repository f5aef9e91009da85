// A benchmark's program run once more, for what needs a process of its own.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace eas::bench {

/// A child that runs this program with other arguments; `run` asks it for one figure.
class OtherProcess {
  public:
    /// `sysini`: the folder of its ODBC drivers.
    OtherProcess(const std::vector<std::string>& arguments, const std::string& sysini);
    ~OtherProcess();
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;

    /// Throws when the child is gone.
    double run();

  private:
    pid_t pid_ = -1;
    int requests_ = -1;
    int answers_ = -1;
};

/// The child's side: gives a figure for each request; an exit code.
int serve(const std::function<double()>& answer);

}  // namespace eas::bench
