// Any text as a port, and as a dotted address. Names would be looked up, so only texts that no
// resolver is asked about are used as hosts.
#include "vornfc/exception.h"
#include "vornfc/socket.h"

#include <cstdint>
#include <cstdlib>
#include <string>

using vornfc::VrnSocket;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const int port = VrnSocket::portnumber(text.c_str(), size % 2 == 0);
  if (port == 0) std::abort();  // 0 is no port: -1 says so

  if (text.find_first_not_of("0123456789.") == std::string::npos) {
    unsigned address = 0;
    if (VrnSocket::ipaddr(text.c_str(), &address) == 0) {
      try {
        const VrnSocket socket(false, &address, port, false);
        if (socket.fd < 0 || (port != -1) != (socket.address.sin_family == AF_INET)) std::abort();
      } catch (const vornfc::VrnException&) {
        std::abort();  // an address that was resolved always makes a socket
      }
    }
  }
  return 0;
}
