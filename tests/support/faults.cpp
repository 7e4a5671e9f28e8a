#include "faults.h"

#include "planned_call.h"

#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace sys {

void fail_next(const char* call, int error, int times) {
  plan_errors(call, error, times);
}

int calls(const char* call) {
  return count_of(call);
}

}  // namespace sys

using sys::errno_call;
using sys::result_call;

// clang-format off
extern "C" {

int socket(int domain, int type, int proto) noexcept { return errno_call("socket", &socket, domain, type, proto); }
int setsockopt(int fd, int level, int name, const void* value, socklen_t size) noexcept { return errno_call("setsockopt", &setsockopt, fd, level, name, value, size); }
int listen(int fd, int backlog) noexcept { return errno_call("listen", &listen, fd, backlog); }
int accept(int fd, sockaddr* peer, socklen_t* size) { return errno_call("accept", &accept, fd, peer, size); }
int connect(int fd, const sockaddr* peer, socklen_t size) { return errno_call("connect", &connect, fd, peer, size); }
int getsockopt(int fd, int level, int name, void* value, socklen_t* size) noexcept { return errno_call("getsockopt", &getsockopt, fd, level, name, value, size); }
int sigaction(int sig, const struct sigaction* action, struct sigaction* old) noexcept { return errno_call("sigaction", &sigaction, sig, action, old); }
int epoll_create1(int flags) noexcept { return errno_call("epoll_create1", &epoll_create1, flags); }
int epoll_ctl(int queue, int what, int fd, epoll_event* event) noexcept { return errno_call("epoll_ctl", &epoll_ctl, queue, what, fd, event); }
int pipe(int* ends) noexcept { return errno_call("pipe", &pipe, ends); }

int pthread_mutex_destroy(pthread_mutex_t* mutex) noexcept { return result_call("pthread_mutex_destroy", &pthread_mutex_destroy, mutex); }
int pthread_mutexattr_init(pthread_mutexattr_t* attr) noexcept { return result_call("pthread_mutexattr_init", &pthread_mutexattr_init, attr); }
int pthread_mutexattr_settype(pthread_mutexattr_t* attr, int type) noexcept { return result_call("pthread_mutexattr_settype", &pthread_mutexattr_settype, attr, type); }
int pthread_mutexattr_destroy(pthread_mutexattr_t* attr) noexcept { return result_call("pthread_mutexattr_destroy", &pthread_mutexattr_destroy, attr); }

}  // extern "C"
// clang-format on
