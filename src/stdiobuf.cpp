#include "vornfc/stdiobuf.h"

#include "vornfc/exception.h"
#include "vornfc/utils.h"

#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace vornfc {

namespace {

constexpr int MaxLineBuffer = 4096;

const char* text(const char* given) {
  return given ? given : "";
}

// On failure the stream keeps its buffer.
void change_buffer(FILE* stream, char* buffer, int mode, size_t size) {
  if (fflush(stream) == 0 && setvbuf(stream, buffer, mode, size) == 0) return;
  throw VrnException(2, "Failed to set buffer of fd=%d (errno=%d)", fileno(stream), errno);
}

}  // namespace

void VrnBufferedStdio::Closer::operator()(FILE* file) const {
  if (fclose(file) == 0) return;
  vrnlog(1, "VrnBufferedStdio: Failed to close file (errno=%d)", errno);
}

VrnBufferedStdio::VrnBufferedStdio(FILE* file, int size, bool byLineIfNotFile, const char* env)
    : lineIfNotFile(byLineIfNotFile), envName(text(env)), stream(file) {
  VrnAssertFull(stream != nullptr, "RAII: Null FILE");
  set(size);
}

VrnBufferedStdio::VrnBufferedStdio(const char* path, const char* fopenMode, int size,
                                   bool byLineIfNotFile, const char* env)
    : lineIfNotFile(byLineIfNotFile),
      envName(text(env)),
      opened(fopen(text(path), text(fopenMode))),
      stream(opened.get()) {
  if (!stream) {
    throw VrnException(2, "Failed to open file=%s for %s (errno=%d)", text(path), text(fopenMode),
                       errno);
  }
  set(size);
}

// The stream lets go of the buffer before that is freed. If it cannot, the buffer stays with it.
VrnBufferedStdio::~VrnBufferedStdio() {
  if (opened || !buffer) return;
  try {
    change_buffer(stream, nullptr, _IONBF, 0);
  } catch (...) {
    vrnlog(1, "VrnBufferedStdio: %s", VrnException::handler().c_str());
    buffer.release();  // NOLINT(bugprone-unused-return-value)
  }
}

void VrnBufferedStdio::set(int size) {
  if (size < 0) return;
  if (size == 0) {
    change_buffer(stream, nullptr, _IONBF, 0);
    buffer.reset();
    return;
  }
  const bool line = by_line();
  const auto length = static_cast<size_t>(line ? std::min(size, MaxLineBuffer) : size);
  std::unique_ptr<char[]> fresh(new char[length]);
  change_buffer(stream, fresh.get(), line ? _IOLBF : _IOFBF, length);
  buffer = std::move(fresh);
}

bool VrnBufferedStdio::by_line() const {
  if (!envName.empty()) {
    const char* const value = getenv(envName.c_str());
    if (value && strcasecmp(value, "y") == 0) return true;
  }
  if (!lineIfNotFile) return false;
  struct stat status;
  if (fstat(fileno(stream), &status) == -1) {
    throw VrnException(2, "Failed to stat fd=%d (errno=%d)", fileno(stream), errno);
  }
  return !S_ISREG(status.st_mode);
}

}  // namespace vornfc
