#include "vornfc/exception.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <typeinfo>

namespace vornfc {

// The argument of the constructor that the public ones delegate to: `errno` is read while the
// argument is made, so ahead of the base class, which allocates.
struct VrnException::Codes {
  int err;
  int syserr;
};

namespace {

constexpr std::size_t message_limit = 1024;  // with the terminator

std::string describe(const VrnException& e) {
  return "VrnException: Error=" + std::to_string(e.err()) +
         " (errno=" + std::to_string(e.syserr()) + ") - " + e.what();
}

std::string describe(const std::exception& e) {
  return std::string(typeid(e).name()) + "=" + e.what();
}

const char* given(const char* fmt) {
  return fmt ? fmt : "<NULL>";
}

}  // namespace

VrnException::VrnException(const Codes& codes)
    : std::runtime_error("VornFC"), message{}, error_code(codes.err), system_error(codes.syserr) {}

VrnException::VrnException(int err, const char* fmt, ...) : VrnException(Codes{err, errno}) {
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(message, message_limit, given(fmt), ap);
  va_end(ap);
}

VrnException::VrnException(va_list ap, int err, const char* fmt) : VrnException(Codes{err, errno}) {
  std::vsnprintf(message, message_limit, given(fmt), ap);
}

VrnException::~VrnException() = default;

const char* VrnException::what() const noexcept {
  return message;
}

int VrnException::err() const {
  return error_code;
}

int VrnException::syserr() const {
  return system_error;
}

std::string VrnException::handler() try {
  try {
    // cppcheck-suppress rethrowNoCurrentException  // called from handlers of exceptions only
    throw;
  } catch (VrnException& e) {
    return describe(e);
  } catch (VrnException* e) {
    const std::unique_ptr<VrnException> owned(e);
    return owned ? describe(*owned) : "<NULL>";
  } catch (std::exception& e) {
    return describe(e);
  } catch (std::string& text) {
    return "string=" + text;
  } catch (const char* text) {
    return text ? text : "<NULL>";
  } catch (...) {
    return "Unidentified exception";
  }
} catch (...) {
  // Destructors and handlers of exceptions ask here, so nothing is thrown: this text is short
  // enough to need no memory.
  return "out of memory";
}

}  // namespace vornfc
