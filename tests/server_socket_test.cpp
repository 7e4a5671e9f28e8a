#include "vornfc/server_socket.h"

#include "support/abort.h"
#include "support/daemon.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "vornfc/exception.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace vornfc {
namespace {

using Lines = std::vector<std::string>;
using Failure = std::pair<int, std::string>;
using Socket = std::unique_ptr<VrnSocket>;

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

sockaddr_in address_of(const char* dotted, int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<unsigned short>(port));
  address.sin_addr.s_addr = inet_addr(dotted);
  return address;
}

// The port that the system chose for a socket bound to port 0.
int bound_port(const VrnSocket& socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(socket.fd, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

bool bind_to(int fd, const sockaddr_in& address) {
  return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool connect_to(int fd, const sockaddr_in& address) {
  return connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// The lowest free descriptor: it tells whether one was left open.
int next_descriptor() {
  const int fd = dup(0);
  close(fd);
  return fd;
}

std::string id(const VrnSocket& socket) {
  return std::to_string(socket.fd) + "=" + socket.name();
}

// A TCP server on a free port of the loopback addresses, and clients of a chosen address.
class ServerSocketTest : public testing::Test {
 protected:
  // A client that connects from `dotted`:`port` (0: any port). Null: the port is taken.
  Socket client_from(const char* dotted, int port) {
    Socket client = std::make_unique<VrnSocket>(false, nullptr, -1, true);
    const int on = 1;
    setsockopt(client->fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (!bind_to(client->fd, address_of(dotted, port))) return nullptr;
    if (!connect_to(client->fd, address_of("127.0.0.1", bound_port(server)))) return nullptr;
    return client;
  }

  // The same from the first port in [first, first + 100) that is free.
  Socket client_from_port_range(const char* dotted, int first) {
    for (int port = first; port < first + 100; ++port) {
      if (Socket client = client_from(dotted, port)) return client;
    }
    ADD_FAILURE() << "no free port for " << dotted << " from " << first << " on";
    return nullptr;
  }

  LogCapture log;
  VrnServerSocket server{nullptr, 0, true};
};

static_assert(std::is_base_of_v<VrnSocket, VrnServerSocket>);
static_assert(sizeof(VrnServerSocket) == sizeof(VrnSocket));
static_assert(!std::is_copy_constructible_v<VrnServerSocket>);

TEST_F(ServerSocketTest, HasTheConstructorsOfASocket) {
  EXPECT_STREQ(VrnServerSocket(":8080", true).name(), "S/TCP-0.0.0.0:8080");
  EXPECT_STREQ(VrnServerSocket("127.0.0.1", "8080", false).name(), "S/UDP-127.0.0.1:8080");
  unsigned addr = inet_addr("127.0.0.2");
  EXPECT_STREQ(VrnServerSocket(&addr, 8080, true).name(), "S/TCP-127.0.0.2:8080");
  EXPECT_TRUE(server.server);
  EXPECT_EQ(failure_of([] { VrnServerSocket(nullptr, false); }),
            Failure(3, "Socket: Null address spec for UDP Server"));
}

// --- activate ------------------------------------------------------------------------------------

TEST_F(ServerSocketTest, ActivateListensAndSaysSo) {
  server.activate();
  EXPECT_EQ(log.lines(), Lines{"Socket: Listening on " + id(server)});
  EXPECT_TRUE(client_from("127.0.0.1", 0));
}

TEST_F(ServerSocketTest, ActivateMakesTheAddressReusable) {
  server.activate();
  int on = 0;
  socklen_t size = sizeof on;
  getsockopt(server.fd, SOL_SOCKET, SO_REUSEADDR, &on, &size);
  EXPECT_NE(on, 0);
}

TEST_F(ServerSocketTest, DatagramServerDoesNotListenButSaysSo) {
  VrnServerSocket datagrams(nullptr, 0, false);
  datagrams.activate();
  EXPECT_EQ(sys::calls("listen"), 0);
  EXPECT_EQ(log.lines(), Lines{"Socket: Listening on " + id(datagrams)});
  const VrnSocket client(false, nullptr, bound_port(datagrams), false);
  ASSERT_TRUE(connect_to(client.fd, client.address));
  EXPECT_EQ(send(client.fd, "x", 1, 0), 1);
  char received = 0;
  EXPECT_EQ(recv(datagrams.fd, &received, 1, 0), 1);
  EXPECT_EQ(received, 'x');
}

TEST_F(ServerSocketTest, ActivateTwiceFailsToBind) {
  VrnServerSocket twice("127.0.0.1", std::to_string(free_port()).c_str(), true);
  twice.activate();
  EXPECT_EQ(failure_of([&] { twice.activate(); }),
            Failure(12, std::string("Failed to bind socket ") + twice.name()));
}

TEST_F(ServerSocketTest, AddressInUseFailsToBind) {
  server.activate();
  VrnServerSocket second(nullptr, bound_port(server), true);
  EXPECT_EQ(failure_of([&] { second.activate(); }),
            Failure(12, std::string("Failed to bind socket ") + second.name()));
}

TEST_F(ServerSocketTest, ForeignAddressFailsToBind) {
  VrnServerSocket foreign("192.0.2.1", "8080", true);
  try {
    foreign.activate();
    FAIL();
  } catch (const VrnException& e) {
    EXPECT_EQ(e.err(), 12);
    EXPECT_STREQ(e.what(), "Failed to bind socket S/TCP-192.0.2.1:8080");
    EXPECT_EQ(e.syserr(), EADDRNOTAVAIL);
  }
}

TEST_F(ServerSocketTest, FailureToMakeTheAddressReusable) {
  sys::fail_next("setsockopt", ENOBUFS);
  EXPECT_EQ(failure_of([&] { server.activate(); }),
            Failure(2, "Failed to set sockopt(REUSEADDR) for S/TCP-0.0.0.0:0"));
}

TEST_F(ServerSocketTest, FailureToListen) {
  sys::fail_next("listen", EADDRINUSE);
  EXPECT_EQ(failure_of([&] { server.activate(); }),
            Failure(2, "Failed to listen on socket S/TCP-0.0.0.0:0"));
  EXPECT_EQ(log.raw(), "");
}

// --- accept --------------------------------------------------------------------------------------

TEST_F(ServerSocketTest, AcceptedSocketIsThePeers) {
  server.activate();
  const Socket client = client_from("127.0.0.1", 0);
  ASSERT_TRUE(client);
  errno = EPIPE;
  const Socket accepted(server.accept());
  ASSERT_TRUE(accepted);
  EXPECT_EQ(errno, 0);
  const std::string name = "caller-127.0.0.1:" + std::to_string(bound_port(*client));
  EXPECT_EQ(accepted->name(), name);
  EXPECT_EQ(accepted->address.sin_family, AF_INET);
  EXPECT_EQ(accepted->address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(ntohs(accepted->address.sin_port), bound_port(*client));
  EXPECT_EQ(log.lines().back(), "Socket " + id(server) + " accept(" + name + ") returned " +
                                    std::to_string(accepted->fd) + " (0)");
  EXPECT_EQ(send(client->fd, "x", 1, 0), 1);
  char received = 0;
  EXPECT_EQ(recv(accepted->fd, &received, 1, 0), 1);
  EXPECT_EQ(received, 'x');
}

TEST_F(ServerSocketTest, DestroyedSocketClosesTheConnection) {
  server.activate();
  const Socket client = client_from("127.0.0.1", 0);
  ASSERT_TRUE(client);
  const int next = next_descriptor();
  Socket accepted(server.accept());
  EXPECT_EQ(accepted->fd, next);
  accepted.reset();
  EXPECT_EQ(next_descriptor(), next);
  char none;
  EXPECT_EQ(recv(client->fd, &none, 1, 0), 0);
}

TEST_F(ServerSocketTest, InterruptedAcceptIsRepeated) {
  server.activate();
  const Socket client = client_from("127.0.0.1", 0);
  sys::fail_next("accept", EINTR, 3);
  EXPECT_TRUE(Socket(server.accept()));
  EXPECT_EQ(sys::calls("accept"), 4);
}

TEST_F(ServerSocketTest, FailedAcceptIsLoggedAndNull) {
  server.activate();
  sys::fail_next("accept", ECONNABORTED);
  EXPECT_EQ(server.accept(), nullptr);
  EXPECT_EQ(errno, ECONNABORTED);
  EXPECT_EQ(log.lines().back(), "Socket " + id(server) + " accept(<NULL>) returned -1 (" +
                                    std::to_string(ECONNABORTED) + ")");
}

TEST_F(ServerSocketTest, NonBlockingAcceptWithoutAConnectionIsNull) {
  server.activate();
  server.setBlockingMode(false);
  EXPECT_EQ(server.accept(), nullptr);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(ServerSocketTest, NameOf24CharactersFits) {
  server.activate();
  const Socket client = client_from_port_range("127.10.10.10", 9000);
  ASSERT_TRUE(client);
  const Socket accepted(server.accept());
  ASSERT_TRUE(accepted);
  EXPECT_EQ(std::string(accepted->name()).size(), 24u);
  EXPECT_EQ(accepted->name(), "caller-127.10.10.10:" + std::to_string(bound_port(*client)));
}

TEST_F(ServerSocketTest, NameOf25CharactersEndsTheProcess) {
  server.activate();
  const Socket client = client_from_port_range("127.10.10.100", 9000);
  ASSERT_TRUE(client);
  const auto accept = [&] {
    count_aborts();
    server.accept();
  };
  EXPECT_EXIT(accept(), testing::KilledBySignal(SIGABRT),
              "Socket: Name of caller 127.10.10.100:" + std::to_string(bound_port(*client)) +
                  " is too long - ABORT APP !");
}

// --- reject --------------------------------------------------------------------------------------

TEST_F(ServerSocketTest, RejectClosesTheConnectionAndServesTheNext) {
  server.activate();
  const Socket first = client_from("127.0.0.1", 0);
  const Socket second = client_from("127.0.0.1", 0);
  ASSERT_TRUE(first && second);
  const int next = next_descriptor();
  server.reject();
  EXPECT_EQ(next_descriptor(), next);
  char none;
  EXPECT_EQ(recv(first->fd, &none, 1, 0), 0);
  const Socket accepted(server.accept());
  ASSERT_TRUE(accepted);
  EXPECT_EQ(accepted->address.sin_port, htons(static_cast<unsigned short>(bound_port(*second))));
}

TEST_F(ServerSocketTest, RejectSurvivesAFailedAccept) {
  server.activate();
  sys::fail_next("accept", ECONNABORTED);
  EXPECT_NO_THROW(server.reject());
}

}  // namespace
}  // namespace vornfc
