#pragma once
/// The buffering of a standard C stream.

#include "vornfc/export.h"

#include <cstdio>
#include <memory>
#include <string>

namespace vornfc {

/// Gives a stream a buffer of the size wanted: one that is written out at each line end when the
/// stream leads to a terminal or pipe, or when the environment says so, and one that is written out
/// when it is full otherwise. What a stream holds is written out before its buffer changes; what
/// has been read ahead of an input stream that cannot seek is lost, so that is set up before it is
/// read.
///
/// Line buffering is chosen when `envName` names an environment variable that is "y", in either
/// case, or when `lineIfNotFile` is set and the descriptor is not a regular file. A null or empty
/// `envName` names none.
///
/// Threads: one at a time uses the object; the environment is read at each set(). Errors, always
/// VrnException: 2 "Failed to open file=%s for %s (errno=%d)", "Failed to stat fd=%d (errno=%d)",
/// or "Failed to set buffer of fd=%d (errno=%d)" when what the stream holds cannot be written out;
/// 3 "RAII: Null FILE" for a null stream. After an exception the stream keeps the buffer it had.
class VORNFC_EXPORT VrnBufferedStdio {
 public:
  /// Adopts `stream`, which is not owned and must not be closed before this object is destroyed.
  /// `size`: see set(); negative: the stream keeps its buffering.
  VrnBufferedStdio(FILE* stream, int size, bool lineIfNotFile, const char* envName);

  /// Opens `path` by fopen() in the mode `fopenMode`, owns the stream, and goes on as above. A
  /// stream that was opened is closed again when the constructor throws.
  VrnBufferedStdio(const char* path, const char* fopenMode, int size, bool lineIfNotFile,
                   const char* envName);

  VrnBufferedStdio(const VrnBufferedStdio&) = delete;
  VrnBufferedStdio& operator=(const VrnBufferedStdio&) = delete;

  /// Closes a stream that it opened, and logs at level 1 when that fails. A stream that it adopted
  /// and gave a buffer becomes unbuffered.
  ~VrnBufferedStdio();

  /// Sets the size of the buffer, in bytes; 0: unbuffered; a line buffer has 4096 at most;
  /// negative: nothing changes.
  void set(int size);

  FILE* file() const { return stream; }  ///< The stream, to read or write; not to be closed.

 private:
  struct Closer {
    void operator()(FILE* file) const;
  };

  bool by_line() const;

  const bool lineIfNotFile;
  const std::string envName;
  std::unique_ptr<char[]> buffer;        // the stream's; null: unbuffered, or as it came
  std::unique_ptr<FILE, Closer> opened;  // null: the stream was adopted
  FILE* const stream;
};

}  // namespace vornfc
