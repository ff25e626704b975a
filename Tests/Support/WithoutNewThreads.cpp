#include "Tests/Support/WithoutNewThreads.h"

#include <grp.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace velorane::test {

namespace {

constexpr uid_t kNobody = 65534;

void* Nothing(void*)
{
    return nullptr;
}

} // namespace

int RunWithoutNewThreads(const std::function<int()>& body)
{
    const pid_t child = ::fork();
    if (child < 0) {
        return -1;
    }
    if (child == 0) {
        if (::geteuid() == 0 &&
            (::setgroups(0, nullptr) != 0 || ::setresgid(kNobody, kNobody, kNobody) != 0 ||
             ::setresuid(kNobody, kNobody, kNobody) != 0)) {
            ::_exit(kThreadLimitNotHeld);
        }
        rlimit none{};
        ::getrlimit(RLIMIT_NPROC, &none);
        none.rlim_cur = 0;
        ::setrlimit(RLIMIT_NPROC, &none);
        pthread_t probe{};
        if (::pthread_create(&probe, nullptr, &Nothing, nullptr) == 0) {
            ::pthread_join(probe, nullptr);
            ::_exit(kThreadLimitNotHeld);
        }
        ::_exit(body());
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

} // namespace velorane::test
