#pragma once
/// The one exception type of the library.

#include "vornfc/export.h"

#include <cstdarg>
#include <stdexcept>
#include <string>

namespace vornfc {

/// An error code, the `errno` of the moment and a formatted message. Thrown by value.
///
/// Codes: 2 a system or pthread call failed; 3 programming error or failed assertion; 6 duplicate
/// or missing singleton, or an invalid state of a singleton-like object; 8 bad host or port; 9
/// configuration or logger settings; 10 initialisation failed; 12 socket bind failed.
class VORNFC_EXPORT VrnException : public std::runtime_error {
 public:
  /// Captures `errno` before anything else. The message is `fmt` with its arguments, cut silently
  /// to 1023 characters; a null `fmt` gives "<NULL>".
  VrnException(int err, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

  /// The same with the arguments in `ap`, which the call uses up: the caller may only va_end() it.
  VrnException(va_list ap, int err, const char* fmt) __attribute__((format(printf, 4, 0)));

  VrnException(const VrnException& other) = default;             ///< The same codes and message.
  VrnException& operator=(const VrnException& other) = default;  ///< The same codes and message.
  ~VrnException() override;

  const char* what() const noexcept override;  ///< The message; lives as long as the exception.
  virtual int err() const;                     ///< The library's error code.
  virtual int syserr() const;                  ///< `errno` when the exception was constructed.

  /// Describes the exception in flight in one line. To be called only inside a catch block, where
  /// it may be called for any exception; elsewhere it ends the process through std::terminate().
  ///
  ///   VrnException      "VrnException: Error=<err> (errno=<syserr>) - <what>"
  ///   VrnException*     the same; the object is then deleted. Null: "<NULL>"
  ///   std::exception    "<type>=<what>", the type as the compiler's type information names it
  ///   std::string       "string=<text>"
  ///   const char*       the text alone; null: "<NULL>"
  ///   anything else     "Unidentified exception"
  ///
  /// When there is no memory for the line it is "out of memory", and what was thrown stays unknown.
  static std::string handler();

 private:
  struct Codes;
  explicit VrnException(const Codes& codes);

  char message[1025];  // terminated; 1024 bytes are used at most
  int error_code;
  int system_error;
};

}  // namespace vornfc
