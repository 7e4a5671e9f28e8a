#include "vornfc/socket.h"

#include "support/faults.h"
#include "vornfc/exception.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <type_traits>
#include <utility>

namespace {

int host_lookups = 0;

}  // namespace

// Host and service names do not depend on the machine: the library resolves them here.
extern "C" hostent* gethostbyname(const char* name) {
  ++host_lookups;
  static unsigned char ipv4[4] = {10, 1, 2, 3};
  static unsigned char ipv6[16] = {0x20, 0x01};
  static char* addresses[2];
  static hostent entry;
  const std::string host = name;
  entry = {};
  entry.h_addr_list = addresses;
  entry.h_addrtype = host == "sixer" ? AF_INET6 : AF_INET;
  entry.h_length = host == "sixer" ? 16 : 4;
  addresses[0] = reinterpret_cast<char*>(host == "sixer" ? ipv6 : ipv4);
  if (host == "misfit") entry.h_length = 16;
  return host == "tenner" || host == "sixer" || host == "misfit" ? &entry : nullptr;
}

extern "C" servent* getservbyname(const char* name, const char* protocol) {
  static servent entry;
  const std::string service = std::string(name) + "/" + protocol;
  entry.s_port = htons(service == "post/tcp" ? 25 : 1025);
  return service == "post/tcp" || service == "post/udp" ? &entry : nullptr;
}

namespace vornfc {
namespace {

using Failure = std::pair<int, std::string>;

// The exception that `call` throws, as its code and message.
template <typename Call>
Failure failure_of(Call call) {
  try {
    call();
  } catch (const VrnException& e) {
    return {e.err(), e.what()};
  }
  return {0, "no VrnException"};
}

int socket_option(int fd, int option) {
  int value = -1;
  socklen_t size = sizeof value;
  getsockopt(fd, SOL_SOCKET, option, &value, &size);
  return value;
}

bool is_open(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

// The lowest free descriptor: it tells whether one was left open.
int next_descriptor() {
  const int fd = dup(0);
  close(fd);
  return fd;
}

unsigned network_order(const char* dotted) {
  return inet_addr(dotted);
}

bool all_zero(const sockaddr_in& address) {
  const sockaddr_in zero{};
  return std::memcmp(&address, &zero, sizeof zero) == 0;
}

static_assert(std::is_base_of_v<VrnFile, VrnSocket>);
static_assert(!std::is_copy_constructible_v<VrnSocket> && !std::is_copy_assignable_v<VrnSocket>);
static_assert(!std::is_default_constructible_v<VrnSocket>);

// --- names and addresses -------------------------------------------------------------------------

TEST(SocketTest, ServerServesOnAnyAddress) {
  VrnSocket socket(true, ":8080", true);
  EXPECT_STREQ(socket.name(), "S/TCP-0.0.0.0:8080");
  EXPECT_EQ(socket.address.sin_family, AF_INET);
  EXPECT_EQ(socket.address.sin_port, htons(8080));
  EXPECT_EQ(socket.address.sin_addr.s_addr, htonl(INADDR_ANY));
  EXPECT_TRUE(socket.tcp);
  EXPECT_TRUE(socket.server);
}

TEST(SocketTest, ClientTargetsTheLoopback) {
  VrnSocket socket(false, "8080", true);
  EXPECT_STREQ(socket.name(), "C/TCP-127.0.0.1:8080");
  EXPECT_EQ(socket.address.sin_port, htons(8080));
  EXPECT_EQ(socket.address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_TRUE(socket.tcp);
  EXPECT_FALSE(socket.server);
}

TEST(SocketTest, DatagramSocketsAreNamedSo) {
  EXPECT_STREQ(VrnSocket(true, "514", false).name(), "S/UDP-0.0.0.0:514");
  EXPECT_STREQ(VrnSocket(false, "514", false).name(), "C/UDP-127.0.0.1:514");
}

TEST(SocketTest, HostAndServiceNamesAreResolved) {
  VrnSocket stream(false, "tenner:post", true);
  EXPECT_STREQ(stream.name(), "C/TCP-10.1.2.3:25");
  VrnSocket datagrams(false, "tenner:post", false);
  EXPECT_STREQ(datagrams.name(), "C/UDP-10.1.2.3:1025");
}

TEST(SocketTest, HostAndPortMayBeTwoTexts) {
  EXPECT_STREQ(VrnSocket(false, "10.0.0.7", "80", true).name(), "C/TCP-10.0.0.7:80");
  EXPECT_STREQ(VrnSocket(false, "", "80", true).name(), "C/TCP-127.0.0.1:80");
  EXPECT_STREQ(VrnSocket(true, nullptr, "80", true).name(), "S/TCP-0.0.0.0:80");
}

TEST(SocketTest, AddressAndPortMayBeNumbers) {
  unsigned addr = network_order("10.0.0.7");
  VrnSocket socket(true, &addr, 80, false);
  EXPECT_STREQ(socket.name(), "S/UDP-10.0.0.7:80");
  EXPECT_EQ(socket.address.sin_addr.s_addr, addr);
  EXPECT_STREQ(VrnSocket(false, nullptr, 80, true).name(), "C/TCP-127.0.0.1:80");
  EXPECT_STREQ(VrnSocket(true, nullptr, 0, true).name(), "S/TCP-0.0.0.0:0");
}

TEST(SocketTest, PortMinusOneLeavesItUnconnected) {
  unsigned addr = network_order("10.0.0.7");
  VrnSocket socket(false, &addr, -1, true);
  EXPECT_STREQ(socket.name(), "C/TCP-unconnected");
  EXPECT_TRUE(all_zero(socket.address));
  EXPECT_STREQ(VrnSocket(false, nullptr, -1, true).name(), "C/TCP-unconnected");
}

TEST(SocketTest, WithoutASpecItIsAnUnconnectedDatagramClient) {
  VrnSocket socket(false, nullptr, false);
  EXPECT_STREQ(socket.name(), "C/UDP-unconnected");
  EXPECT_TRUE(all_zero(socket.address));
  EXPECT_STREQ(VrnSocket(false, "", false).name(), "C/UDP-unconnected");
}

TEST(SocketTest, EveryOtherKindNeedsASpec) {
  EXPECT_EQ(failure_of([] { VrnSocket(true, "", true); }),
            Failure(3, "Socket: Null address spec for TCP Server"));
  EXPECT_EQ(failure_of([] { VrnSocket(true, nullptr, false); }),
            Failure(3, "Socket: Null address spec for UDP Server"));
  EXPECT_EQ(failure_of([] { VrnSocket(false, nullptr, true); }),
            Failure(3, "Socket: Null address spec for TCP Client"));
}

TEST(SocketTest, SpecIsSplitAtItsFirstColon) {
  EXPECT_STREQ(VrnSocket(false, "10.0.0.7:80:90", true).name(), "C/TCP-10.0.0.7:80");
  EXPECT_EQ(failure_of([] { VrnSocket(false, "10.0.0.7:", true); }), Failure(8, "Bad portspec ()"));
  EXPECT_EQ(failure_of([] { VrnSocket(false, "::80", true); }), Failure(8, "Bad portspec (:80)"));
}

TEST(SocketTest, BroadcastAddressIsAHost) {
  EXPECT_STREQ(VrnSocket(false, "255.255.255.255:67", false).name(), "C/UDP-255.255.255.255:67");
  EXPECT_EQ(host_lookups, 0);
}

// --- the descriptor ------------------------------------------------------------------------------

TEST(SocketTest, DescriptorIsOfTheKind) {
  VrnSocket stream(false, "80", true);
  EXPECT_EQ(socket_option(stream.fd, SO_TYPE), SOCK_STREAM);
  EXPECT_EQ(socket_option(stream.fd, SO_DOMAIN), AF_INET);
  VrnSocket datagrams(false, "80", false);
  EXPECT_EQ(socket_option(datagrams.fd, SO_TYPE), SOCK_DGRAM);
  EXPECT_EQ(socket_option(datagrams.fd, SO_DOMAIN), AF_INET);
}

TEST(SocketTest, DescriptorIsBlocking) {
  VrnSocket socket(false, "80", true);
  EXPECT_EQ(fcntl(socket.fd, F_GETFL) & O_NONBLOCK, 0);
}

TEST(SocketTest, DescriptorIsOwned) {
  int fd = -1;
  {
    VrnSocket socket(false, "80", true);
    fd = socket.fd;
    EXPECT_TRUE(is_open(fd));
  }
  EXPECT_FALSE(is_open(fd));
}

TEST(SocketTest, IsDestroyedThroughItsBase) {
  auto* socket = new VrnSocket(false, "80", true);
  const int fd = socket->fd;
  VrnFile* file = socket;
  delete file;
  EXPECT_FALSE(is_open(fd));
}

// --- failures ------------------------------------------------------------------------------------

TEST(SocketTest, FailureToCreateCarriesErrno) {
  sys::fail_next("socket", EMFILE, 2);
  EXPECT_EQ(failure_of([] { VrnSocket(false, "80", true); }),
            Failure(2, "Failed to create C/TCP-127.0.0.1:80 socket"));
  try {
    VrnSocket socket(false, nullptr, false);
    FAIL();
  } catch (const VrnException& e) {
    EXPECT_STREQ(e.what(), "Failed to create C/UDP-unconnected socket");
    EXPECT_EQ(e.syserr(), EMFILE);
  }
}

TEST(SocketTest, UnresolvedHostIsRefused) {
  EXPECT_EQ(failure_of([] { VrnSocket(false, "nosuchhost:80", true); }),
            Failure(8, "Bad hostspec (nosuchhost)"));
  EXPECT_EQ(failure_of([] { VrnSocket(true, "nosuchhost", "nosuchservice", true); }),
            Failure(8, "Bad hostspec (nosuchhost)"));
}

TEST(SocketTest, BadPortIsRefused) {
  EXPECT_EQ(failure_of([] { VrnSocket(false, "0", true); }), Failure(8, "Bad portspec (0)"));
  EXPECT_EQ(failure_of([] { VrnSocket(false, "nosuchservice", true); }),
            Failure(8, "Bad portspec (nosuchservice)"));
  EXPECT_EQ(failure_of([] { VrnSocket(false, ":-1", true); }), Failure(8, "Bad portspec (-1)"));
  EXPECT_EQ(failure_of([] { VrnSocket(false, "10.0.0.7", nullptr, true); }),
            Failure(8, "Bad portspec (<NULL>)"));
}

TEST(SocketTest, FailedConstructorCreatesNoSocket) {
  EXPECT_THROW(VrnSocket(false, "nosuchhost:80", true), VrnException);
  EXPECT_THROW(VrnSocket(false, "nosuchservice", true), VrnException);
  EXPECT_THROW(VrnSocket(true, nullptr, true), VrnException);
  EXPECT_EQ(sys::calls("socket"), 0);
}

TEST(SocketTest, SecondSetupIsRefusedAndLeavesNoDescriptorOpen) {
  VrnSocket socket(false, "80", true);
  const int fd = socket.fd;
  const int next = next_descriptor();
  EXPECT_EQ(failure_of([&] { socket.setup(nullptr, 90); }).first, 3);
  EXPECT_EQ(failure_of([&] { socket.setup(nullptr, "90"); }).first, 3);
  EXPECT_EQ(failure_of([&] { socket.setup(nullptr, -1); }).first, 3);
  EXPECT_EQ(next_descriptor(), next);
  EXPECT_EQ(socket.fd, fd);
  EXPECT_TRUE(is_open(fd));
  EXPECT_EQ(socket.address.sin_port, htons(80));
}

// --- resolving -----------------------------------------------------------------------------------

TEST(SocketPortTest, NumberIsTakenAsItIs) {
  EXPECT_EQ(VrnSocket::portnumber("80", true), 80);
  EXPECT_EQ(VrnSocket::portnumber("80abc", true), 80);
  EXPECT_EQ(VrnSocket::portnumber("  80", false), 80);
  EXPECT_EQ(VrnSocket::portnumber("-5", true), -5);
  EXPECT_EQ(VrnSocket::portnumber("70000", true), 70000);
}

TEST(SocketPortTest, OtherTextIsAServiceOfTheProtocol) {
  EXPECT_EQ(VrnSocket::portnumber("post", true), 25);
  EXPECT_EQ(VrnSocket::portnumber("post", false), 1025);
}

TEST(SocketPortTest, UnknownServiceIsMinusOne) {
  EXPECT_EQ(VrnSocket::portnumber("nosuchservice", true), -1);
  EXPECT_EQ(VrnSocket::portnumber("0", true), -1);
  EXPECT_EQ(VrnSocket::portnumber("", true), -1);
  EXPECT_EQ(VrnSocket::portnumber(nullptr, true), -1);
}

TEST(SocketAddressTest, DottedNotationNeedsNoLookup) {
  unsigned addr = 0;
  EXPECT_EQ(VrnSocket::ipaddr("10.0.0.7", &addr), 0);
  EXPECT_EQ(addr, htonl(0x0a000007));
  EXPECT_EQ(VrnSocket::ipaddr("255.255.255.255", &addr), 0);
  EXPECT_EQ(addr, 0xffffffff);
  EXPECT_EQ(host_lookups, 0);
}

TEST(SocketAddressTest, HostNameIsLookedUp) {
  unsigned addr = 0;
  EXPECT_EQ(VrnSocket::ipaddr("tenner", &addr), 0);
  EXPECT_EQ(addr, htonl(0x0a010203));
  EXPECT_EQ(host_lookups, 1);
}

TEST(SocketAddressTest, UnknownHostIsOne) {
  unsigned addr = 0;
  EXPECT_EQ(VrnSocket::ipaddr("nosuchhost", &addr), 1);
  EXPECT_EQ(addr, INADDR_NONE);
}

TEST(SocketAddressTest, HostWithoutAnIpv4AddressIsOne) {
  unsigned addr = 0;
  EXPECT_EQ(VrnSocket::ipaddr("sixer", &addr), 1);
  EXPECT_EQ(VrnSocket::ipaddr("misfit", &addr), 1);
}

TEST(SocketAddressTest, NullIsNoHost) {
  unsigned addr = 0;
  EXPECT_EQ(VrnSocket::ipaddr(nullptr, &addr), 1);
  EXPECT_EQ(addr, INADDR_NONE);
  EXPECT_EQ(failure_of([] { VrnSocket::ipaddr("tenner", nullptr); }),
            Failure(3, "Socket: Null address for host tenner"));
}

}  // namespace
}  // namespace vornfc
