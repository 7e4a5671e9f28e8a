// Starting a process: from exec to the application's own code, and the memory resident by then.
//   starts=200   of which the medians are told
// The contenders are programs beside this one, startup_CONTENDER.
#include "contender.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <filesystem>

namespace {

struct Program {
  const char* name;
};

const compare::Enter<Program> vornfc("vornfc", {"startup_vornfc"});
const compare::Enter<Program> bare("bare", {"startup_bare"});

int64_t nanoseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * int64_t{1000000000} + now.tv_nsec;
}

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

// One start: microseconds, and KiB. The child says when it began to exec, the program when it ran.
void start(const std::string& program, double* time, double* resident) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) == -1) fail("pipe2");
  const pid_t child = fork();
  if (child == -1) fail("fork");
  if (child == 0) {
    dup2(ends[1], STDOUT_FILENO);
    const int64_t begin = nanoseconds();
    if (write(STDOUT_FILENO, &begin, sizeof begin) != sizeof begin) _exit(1);
    execl(program.c_str(), program.c_str(), nullptr);
    _exit(1);
  }
  close(ends[1]);
  int64_t begin;
  if (read(ends[0], &begin, sizeof begin) != sizeof begin) fail("read");
  char text[100] = {};
  const ssize_t size = read(ends[0], text, sizeof text - 1);
  int status;
  waitpid(child, &status, 0);
  close(ends[0]);
  int64_t end;
  long kibibytes;
  if (size <= 0 || status != 0 || std::sscanf(text, "%" SCNd64 " %ld", &end, &kibibytes) != 2) {
    std::fprintf(stderr, "%s did not start\n", program.c_str());
    std::exit(1);
  }
  *time = static_cast<double>(end - begin) / 1e3;
  *resident = static_cast<double>(kibibytes);
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void measure(const Program& program, const compare::Arguments& arguments) {
  const auto count = static_cast<size_t>(arguments.number("starts", 200));
  const std::string path =
      std::filesystem::read_symlink("/proc/self/exe").replace_filename(program.name);
  // The home of the default log file.
  std::string home = std::filesystem::temp_directory_path() / "compare_startup_XXXXXX";
  setenv("HOME", mkdtemp(home.data()), 1);
  std::vector<double> times(count), sizes(count);
  for (size_t i = 0; i < count; ++i) start(path, &times[i], &sizes[i]);
  std::filesystem::remove_all(home);
  compare::report("us_to_run", median(times));
  compare::report("resident_kib", median(sizes));
}

}  // namespace

int main(int argc, char** argv) {
  return compare::run<Program>(argc, argv, measure);
}
