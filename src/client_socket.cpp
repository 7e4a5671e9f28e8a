#include "vornfc/client_socket.h"

#include "evtmgr_access.h"
#include "timeout_alarm.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/exception.h"
#include "vornfc/mutex.h"
#include "vornfc/utils.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

namespace vornfc {

namespace {

constexpr int TimedOut = -1;
constexpr int Unreadable = -1;
constexpr int Dropped = -2;

}  // namespace

// Waits for the outcome of an asynchronous connect.
struct ImplClientSocket : VrnAIO {
  explicit ImplClientSocket(VrnClientSocket* client)
      : VrnAIO(false, client->name()), socket(client) {
    built_in = true;
  }

  static ImplClientSocket* create(VrnClientSocket* client);
  static bool cancelAIO(ImplClientSocket* impl);

  int connect_now(const TimeoutAlarm* timer);
  bool wait_for_outcome(VrnSocketsClient* client);
  void notify(VrnSocketsClient* client, bool dropped);
  void destroy_later();

  void aioReady(VrnFile* file) override;
  void aioCancelled(VrnFile* file, bool hangup, bool error) override;

  // Serialises the creation of these objects and the check for a second connect. Taken before the
  // lock of VrnAIO, which guards the fields.
  static VrnMutex creat_mtx;

  bool connected = false;              // connect() itself succeeded
  VrnSocketsClient* caller = nullptr;  // awaits the outcome; null: none is awaited
  bool destroyPending = false;
  VrnClientSocket* const socket;
};

VrnMutex ImplClientSocket::creat_mtx(nullptr, false);

ImplClientSocket* ImplClientSocket::create(VrnClientSocket* client) {
  VrnMutexGuard guard(&creat_mtx);
  if (!client->impl) {
    client->impl = std::make_unique<ImplClientSocket>(client);
    return client->impl.get();
  }
  VrnMutexGuard fields(client->impl->mutex.get());
  if (client->impl->connected || client->impl->caller) {
    throw VrnException(6, "Socket: Duplicate connection on %s", client->name());
  }
  return client->impl.get();
}

// The result of connect(2): 0, `errno`, or the code for a time-out or an `errno` of 0.
int ImplClientSocket::connect_now(const TimeoutAlarm* timer) {
  int result = 0;
  for (;;) {
    errno = 0;
    if (::connect(socket->fd, reinterpret_cast<const sockaddr*>(&socket->address),
                  sizeof socket->address) == 0) {
      VrnMutexGuard guard(mutex.get());
      connected = true;
      break;
    }
    result = errno == 0 ? Dropped : errno;
    if (result != EINTR) break;
    if (timer && timer->expired()) return TimedOut;
    result = 0;
  }
  vrnlog(result == 0 ? 5 : 4, "Socket %d: connect(%s) = %d", socket->fd, socket->name(), result);
  errno = result;
  return result;
}

// False: no outcome will come, the loop has ended. The caller is noted first: once the descriptor
// is watched, the dispatcher may report.
bool ImplClientSocket::wait_for_outcome(VrnSocketsClient* client) {
  VrnMutexGuard guard(mutex.get());
  caller = client;
  try {
    const bool watched = event_manager_for("ClientSocket", tag.c_str())->startAIO(socket, this);
    if (!watched) caller = nullptr;
    return watched;
  } catch (...) {
    caller = nullptr;
    throw;
  }
}

void ImplClientSocket::notify(VrnSocketsClient* client, bool dropped) {
  if (!client) {
    throw VrnException(3, "Null caller for ClientSocket %d=%s", socket->fd, socket->name());
  }
  int result = Dropped;
  if (!dropped) {
    socklen_t size = sizeof result;
    if (getsockopt(socket->fd, SOL_SOCKET, SO_ERROR, &result, &size) == -1) {
      vrnlog(1, "getsockopt(ERROR) failed on %d=%s - errno=%d", socket->fd, socket->name(), errno);
      result = Unreadable;
    }
  }
  client->socketConnected(socket, result);
}

void ImplClientSocket::aioReady(VrnFile*) {
  VrnMutexGuard guard(mutex.get());
  if (!caller) return;  // another thread has just ended the connect
  VrnEvtMgr* const evtmgr = VrnAppShell::evtmgr;
  if (evtmgr && !evtmgr->stopAIO(socket, this)) return;  // aioCancelled() follows
  VrnSocketsClient* const client = std::exchange(caller, nullptr);
  guard.clear();
  notify(client, false);
}

void ImplClientSocket::aioCancelled(VrnFile*, bool hangup, bool error) {
  VrnMutexGuard guard(mutex.get());
  if (destroyPending) {
    caller = nullptr;
    guard.clear();
    return socket->destroy();
  }
  if (!caller) return;  // another thread has just ended the connect
  VrnSocketsClient* const client = std::exchange(caller, nullptr);
  guard.clear();
  VrnEvtMgrNative::forget_requests(this);
  notify(client, hangup || error);
}

// True: no outcome is awaited any more.
bool ImplClientSocket::cancelAIO(ImplClientSocket* impl) {
  if (!impl) return true;
  VrnMutexGuard guard(impl->mutex.get());
  if (!impl->caller) return true;
  VrnEvtMgr* const evtmgr = VrnAppShell::evtmgr;  // gone: there is nothing left to stop
  if (evtmgr && !evtmgr->stopAIO(impl->socket, impl)) return false;
  impl->caller = nullptr;
  return true;
}

void ImplClientSocket::destroy_later() {
  VrnMutexGuard guard(mutex.get());
  destroyPending = true;
}

VrnSocketsClient::~VrnSocketsClient() = default;

VrnClientSocket::VrnClientSocket(unsigned* addr, int port, bool isTcp)
    : VrnSocket(false, addr, port, isTcp) {}

VrnClientSocket::VrnClientSocket(const char* host, const char* port, bool isTcp)
    : VrnSocket(false, host, port, isTcp) {}

VrnClientSocket::VrnClientSocket(const char* spec, bool isTcp) : VrnSocket(false, spec, isTcp) {}

VrnClientSocket::~VrnClientSocket() {
  bool idle = false;
  try {
    idle = ImplClientSocket::cancelAIO(impl.get());
  } catch (...) {
    vrnlog(1, "ClientSocket: Failed to stop %s [%s]", name(), VrnException::handler().c_str());
  }
  if (!idle) {
    vrnlog(1, "ClientSocket destroyed while active - ABORT APP !");
    exit(1);
  }
}

int VrnClientSocket::connect(VrnSocketsClient* caller, int timeout) {
  VrnAssertFull(address.sin_family == AF_INET, "Socket: Connect on %d=%s", fd, name());
  ImplClientSocket* const connector = ImplClientSocket::create(this);
  setBlockingMode(caller == nullptr);
  if (timeout != 0) {
    VrnAssertFull(caller == nullptr, "ClientSocket: tmt=%d for nonblocking %d=%s", timeout, fd,
                  name());
    TimeoutAlarm timer(static_cast<unsigned>(std::max(1, timeout / 1000)));
    return connector->connect_now(&timer);
  }
  const int result = connector->connect_now(nullptr);
  if (!caller) return result;
  if (result != EINPROGRESS) {
    caller->socketConnected(this, result);
    return 1;
  }
  if (connector->wait_for_outcome(caller)) return 0;
  caller->socketConnected(this, Dropped);
  return 1;
}

void VrnClientSocket::destroy() {
  if (impl) {
    if (!ImplClientSocket::cancelAIO(impl.get())) return impl->destroy_later();
    VrnEvtMgrNative::forget(impl.get());  // before any destructor: another thread may call it back
  }
  delete this;
}

}  // namespace vornfc
