#include "echo.h"

#include <asio.hpp>
#include <memory>

namespace {

using Descriptor = asio::posix::stream_descriptor;

struct Caller : std::enable_shared_from_this<Caller> {
  Caller(asio::io_context& context, int fd) : descriptor(context, fd) {}
  void wait() {
    descriptor.async_wait(Descriptor::wait_read,
                          [self = shared_from_this()](const asio::error_code& error) {
                            if (!error && echo(self->descriptor.native_handle())) self->wait();
                          });
  }
  Descriptor descriptor;
};

struct Callers {
  void wait() {
    descriptor.async_wait(Descriptor::wait_read, [this](const asio::error_code&) {
      const int fd = next_caller(descriptor.native_handle());
      if (fd != -1) std::make_shared<Caller>(context, fd)->wait();
      wait();
    });
  }
  asio::io_context& context;
  Descriptor descriptor;
};

void serve(int listening) {
  asio::io_context context(1);
  Callers callers{context, Descriptor(context, listening)};
  callers.wait();
  context.run();
}

const compare::Enter<Serve> entry("asio", serve);

}  // namespace
