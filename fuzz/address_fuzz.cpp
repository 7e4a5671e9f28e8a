// Any text as a port, as a host, and as both in one. A second reading of numbers and dotted
// addresses, and a resolver of the test's own that the library then asks, say what comes out: the
// number, the address, the name of the socket, or which exception. The first byte chooses client or
// server, TCP or UDP, and whether host and port come in two texts.

#include "fuzzing.h"
#include "vornfc/exception.h"
#include "vornfc/socket.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

using vornfc::VrnException;
using vornfc::VrnSocket;

namespace {

// ---- the resolver: what it knows depends on the text alone ----

unsigned sum_of(const std::string& text) {
  unsigned sum = 0;
  for (const char c : text) sum = sum * 31 + static_cast<unsigned char>(c);
  return sum;
}

struct HostEntry {
  bool known;
  bool is_ipv4;
  unsigned address;
};

HostEntry host_entry(const std::string& name) {
  const unsigned sum = sum_of(name);
  return {sum % 4 != 0, sum % 4 != 1, sum * 2654435761U};
}

int service_port(const std::string& name, const std::string& protocol) {  // -1: unknown
  const unsigned sum = sum_of(name + "/" + protocol);
  return sum % 3 == 0 ? -1 : static_cast<int>(sum % 65536);
}

// ---- the second reading ----

bool is_white(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

// The decimal number that a text begins with, cut to a long and then to an int.
int leading_number(const std::string& text) {
  std::size_t at = 0;
  while (at < text.size() && is_white(text[at])) ++at;
  const bool negative = at < text.size() && text[at] == '-';
  if (at < text.size() && (text[at] == '-' || text[at] == '+')) ++at;
  const unsigned long limit = negative ? 1UL + LONG_MAX : LONG_MAX;
  unsigned long value = 0;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
    const auto digit = static_cast<unsigned long>(text[at] - '0');
    value = value > (limit - digit) / 10 ? limit : value * 10 + digit;
  }
  return static_cast<int>(negative ? 0 - value : value);
}

int port_of(const std::string& text, bool tcp) {
  const int number = leading_number(text);
  return number != 0 ? number : service_port(text, tcp ? "tcp" : "udp");
}

std::optional<unsigned> part_of(const std::string& text, unsigned base) {
  if (text.empty()) return std::nullopt;
  std::uint64_t value = 0;
  for (const char c : text) {
    unsigned digit = 99;
    if (c >= '0' && c <= '9') digit = static_cast<unsigned>(c - '0');
    if (c >= 'a' && c <= 'f') digit = static_cast<unsigned>(c - 'a') + 10;
    if (c >= 'A' && c <= 'F') digit = static_cast<unsigned>(c - 'A') + 10;
    if (digit >= base) return std::nullopt;
    value = value * base + digit;
    if (value > UINT32_MAX) return std::nullopt;
  }
  return static_cast<unsigned>(value);
}

// One to four numbers, decimal, octal or hexadecimal; the last one fills the bytes that are left.
// White space ends the text.
std::optional<unsigned> dotted(std::string text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (is_white(text[i])) text.erase(i);
  }
  std::uint64_t address = 0;
  for (int parts = 1; parts <= 4; ++parts) {
    const std::size_t dot = text.find('.');
    const std::string digits = text.substr(0, dot);
    const bool hex =
        digits.size() > 1 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X');
    const bool octal = !hex && digits.size() > 1 && digits[0] == '0';
    const auto part = part_of(hex ? digits.substr(2) : digits, hex ? 16 : octal ? 8 : 10);
    if (!part) return std::nullopt;
    if (dot == text.npos) {
      const std::uint64_t room = 1ULL << (8 * (5 - parts));
      if (*part >= room) return std::nullopt;
      return htonl(static_cast<unsigned>(address * room + *part));
    }
    if (*part > 255) return std::nullopt;
    address = address * 256 + *part;
    text.erase(0, dot + 1);
  }
  return std::nullopt;
}

std::optional<unsigned> address_of(const std::string& host) {
  const auto numeric = dotted(host);
  if (numeric && (*numeric != INADDR_NONE || host == "255.255.255.255")) return numeric;
  const HostEntry entry = host_entry(host);
  if (!entry.known || !entry.is_ipv4) return std::nullopt;
  return entry.address;
}

struct Expected {
  int code = 0;  // of the exception; 0: none
  std::string text;
  bool connected = true;
  unsigned address = 0;
  int port = 0;
};

Expected expected_of(bool server, bool tcp, const std::string& host, const std::string& port) {
  Expected expected;
  expected.address = htonl(server ? INADDR_ANY : INADDR_LOOPBACK);
  if (!host.empty()) {
    const auto address = address_of(host);
    if (!address) return {8, "Bad hostspec (" + host + ")"};
    expected.address = *address;
  }
  expected.port = port_of(port, tcp);
  if (expected.port == -1) return {8, "Bad portspec (" + port + ")"};
  return expected;
}

Expected expected_of(bool server, bool tcp, const std::string& spec) {
  if (spec.empty() && !tcp && !server) {
    Expected expected;
    expected.connected = false;
    return expected;
  }
  if (spec.empty()) {
    return {3, std::string("Socket: Null address spec for ") + (tcp ? "TCP " : "UDP ") +
                   (server ? "Server" : "Client")};
  }
  const std::size_t colon = spec.find(':');
  if (colon == spec.npos) return expected_of(server, tcp, "", spec);
  return expected_of(server, tcp, spec.substr(0, colon), spec.substr(colon + 1));
}

// ---- what is held against what ----

std::string name_of(const Expected& expected, bool server, bool tcp) {
  const std::string kind = std::string(server ? "S/" : "C/") + (tcp ? "TCP-" : "UDP-");
  if (!expected.connected) return kind + "unconnected";
  unsigned char bytes[4];
  std::memcpy(bytes, &expected.address, sizeof bytes);
  std::string address;
  for (const unsigned char byte : bytes) {
    address += (address.empty() ? "" : ".") + std::to_string(byte);
  }
  return kind + address + ":" + std::to_string(expected.port);
}

void check_socket(const VrnSocket& socket, const Expected& expected, bool server, bool tcp) {
  require(expected.code == 0, "accepted in spite of [%s]", expected.text.c_str());
  require(socket.name() == name_of(expected, server, tcp), "[%s] instead of [%s]", socket.name(),
          name_of(expected, server, tcp).c_str());
  require(socket.server == server && socket.tcp == tcp, "another kind of socket");
  sockaddr_in address{};
  if (expected.connected) {
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(expected.port));
    address.sin_addr.s_addr = expected.address;
  }
  require(std::memcmp(&address, &socket.address, sizeof address) == 0, "another address");
  int type = 0;
  socklen_t size = sizeof type;
  const int result = getsockopt(socket.fd, SOL_SOCKET, SO_TYPE, &type, &size);
  require(result == 0 && type == (tcp ? SOCK_STREAM : SOCK_DGRAM), "another type of socket");
}

template <class Make>
void check(Make make, const Expected& expected, bool server, bool tcp) {
  try {
    check_socket(make(), expected, server, tcp);
  } catch (const VrnException& e) {
    require(e.err() == expected.code && e.what() == expected.text.substr(0, 1023),
            "exception %d [%s] instead of %d [%s]", e.err(), e.what(), expected.code,
            expected.text.c_str());
  }
}

}  // namespace

// ---- the calls that the library makes of this program ----

extern "C" {

hostent* gethostbyname(const char* name) {
  static unsigned address;
  static char* addresses[] = {reinterpret_cast<char*>(&address), nullptr};
  static hostent entry;
  const HostEntry known = host_entry(name);
  address = known.address;
  entry = {};
  entry.h_addrtype = known.is_ipv4 ? AF_INET : AF_INET6;
  entry.h_length = known.is_ipv4 ? 4 : 16;
  entry.h_addr_list = addresses;
  return known.known ? &entry : nullptr;
}

servent* getservbyname(const char* name, const char* protocol) {
  static servent entry;
  const int port = service_port(name, protocol);
  entry.s_port = htons(static_cast<std::uint16_t>(port));
  return port == -1 ? nullptr : &entry;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const unsigned kind = input.byte();
  const bool server = (kind & 1) != 0;
  const bool tcp = (kind & 2) != 0;
  const std::string first = input.line();
  const std::string second = input.line();

  require(VrnSocket::portnumber(first.c_str(), tcp) == port_of(first, tcp), "port [%s]: %d",
          first.c_str(), VrnSocket::portnumber(first.c_str(), tcp));
  unsigned address = 0;
  const int result = VrnSocket::ipaddr(first.c_str(), &address);
  const auto expected_address = address_of(first);
  require((result == 0) == expected_address.has_value() &&
              address == expected_address.value_or(INADDR_NONE),
          "address [%s]: %d, %x", first.c_str(), result, address);

  if ((kind & 4) != 0) {
    check([&] { return VrnSocket(server, first.c_str(), second.c_str(), tcp); },
          expected_of(server, tcp, first, second), server, tcp);
  } else {
    check([&] { return VrnSocket(server, first.c_str(), tcp); }, expected_of(server, tcp, first),
          server, tcp);
  }
  return 0;
}

}  // extern "C"
