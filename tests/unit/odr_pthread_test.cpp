#include "odr_pthread.h"

#include <cerrno>
#include <poll.h>
#include <unistd.h>
#include <ctime>

#include <gtest/gtest.h>

#include "kobtest.h"

namespace {

const char kPthread[] = "lib/libkob/odr_pthread.cpp";

void *returnArg(void *arg) {
    return arg;
}

TEST(OdrPthread, CreateAndJoin) {
    ODR_pthread_t t;
    int value = 7;
    ASSERT_EQ(ODR_pthread_create(&t, nullptr, returnArg, &value), 0);
    void *ret = nullptr;
    EXPECT_EQ(ODR_pthread_join(t, &ret), 0);
    EXPECT_EQ(ret, &value);
}

TEST(OdrPthread, CreateWithAttributeAborts) {
    auto r = kobtest::runChild([] {
        ODR_pthread_t t;
        int attr = 0;
        ODR_pthread_create(&t, &attr, returnArg, nullptr);
    });
    EXPECT_TRUE(kobtest::vasAbort(r, "ODR_pthread_create", kPthread, "attr == NULL"));
}

TEST(OdrPthread, CondWithAttributeAborts) {
    auto r = kobtest::runChild([] {
        ODR_pthread_cond_t c;
        int attr = 0;
        ODR_pthread_cond_init(&c, &attr);
    });
    EXPECT_TRUE(kobtest::vasAbort(r, "ODR_pthread_cond_init", kPthread, "attr == NULL"));
}

TEST(OdrPthread, SelfAndEqual) {
    EXPECT_NE(ODR_pthread_equal(ODR_pthread_self(), pthread_self()), 0);
}

TEST(OdrPthread, MutexTypeZeroAborts) {
    auto r = kobtest::runChild([] {
        ODR_pthread_mutexattr_t a;
        ODR_pthread_mutexattr_init(&a);
        ODR_pthread_mutexattr_settype(&a, 0);
    });
    EXPECT_TRUE(kobtest::vasAbort(r, "ODR_pthread_mutexattr_settype", kPthread, "value != -1"));
}

TEST(OdrPthread, RecursiveMutexLocksTwice) {
    ODR_pthread_mutexattr_t a;
    ASSERT_EQ(ODR_pthread_mutexattr_init(&a), 0);
    ASSERT_EQ(ODR_pthread_mutexattr_settype(&a, ODR_PTHREAD_MUTEX_RECURSIVE), 0);
    ODR_pthread_mutex_t m;
    ASSERT_EQ(ODR_pthread_mutex_init(&m, &a), 0);
    EXPECT_EQ(ODR_pthread_mutex_lock(&m), 0);
    EXPECT_EQ(ODR_pthread_mutex_lock(&m), 0);
    EXPECT_EQ(ODR_pthread_mutex_trylock(&m), 0);
    EXPECT_EQ(ODR_pthread_mutex_unlock(&m), 0);
    EXPECT_EQ(ODR_pthread_mutex_unlock(&m), 0);
    EXPECT_EQ(ODR_pthread_mutex_unlock(&m), 0);
    EXPECT_EQ(ODR_pthread_mutex_destroy(&m), 0);
    EXPECT_EQ(m, nullptr);
    EXPECT_EQ(ODR_pthread_mutexattr_destroy(&a), 0);
    EXPECT_EQ(a, nullptr);
}

void *tryFromOtherThread(void *arg) {
    auto m = static_cast<ODR_pthread_mutex_t *>(arg);
    return reinterpret_cast<void *>(static_cast<intptr_t>(ODR_pthread_mutex_trylock(m)));
}

TEST(OdrPthread, TrylockPassesThePlatformsBusyCode) {
    ODR_pthread_mutex_t m;
    ASSERT_EQ(ODR_pthread_mutex_init(&m, nullptr), 0);
    ASSERT_EQ(ODR_pthread_mutex_lock(&m), 0);
    ODR_pthread_t t;
    ODR_pthread_create(&t, nullptr, tryFromOtherThread, &m);
    void *ret;
    ODR_pthread_join(t, &ret);
    // EBUSY as the platform gives it, not the library's ODR_EBUSY.
    static_assert(EBUSY != ODR_EBUSY, "the check below must tell the two codes apart");
    EXPECT_EQ(static_cast<int>(reinterpret_cast<intptr_t>(ret)), EBUSY);
    EXPECT_EQ(ODR_pthread_mutex_unlock(&m), 0);
    ODR_pthread_mutex_destroy(&m);
}

TEST(OdrPthread, TimedWaitPastDeadlineReturns10000) {
    ODR_pthread_mutex_t m;
    ODR_pthread_cond_t c;
    ODR_pthread_mutex_init(&m, nullptr);
    ODR_pthread_cond_init(&c, nullptr);
    struct timespec past = {1, 0}; // long gone
    ODR_pthread_mutex_lock(&m);
    EXPECT_EQ(ODR_pthread_cond_timedwait(&c, &m, &past), ODR_ETIMEDOUT);
    EXPECT_EQ(ODR_ETIMEDOUT, 10000);
    ODR_pthread_mutex_unlock(&m);
    ODR_pthread_mutex_destroy(&m);
}

struct Signal {
    ODR_pthread_mutex_t m;
    ODR_pthread_cond_t c;
    bool ready = false;
};

void *signaller(void *arg) {
    auto s = static_cast<Signal *>(arg);
    ODR_pthread_mutex_lock(&s->m);
    s->ready = true;
    ODR_pthread_cond_signal(&s->c);
    ODR_pthread_mutex_unlock(&s->m);
    return nullptr;
}

TEST(OdrPthread, SignalWakesWaiters) {
    Signal s;
    ODR_pthread_mutex_init(&s.m, nullptr);
    ODR_pthread_cond_init(&s.c, nullptr);
    ODR_pthread_mutex_lock(&s.m);
    ODR_pthread_t t;
    ODR_pthread_create(&t, nullptr, signaller, &s);
    while (!s.ready)
        EXPECT_EQ(ODR_pthread_cond_wait(&s.c, &s.m), 0);
    ODR_pthread_mutex_unlock(&s.m);
    ODR_pthread_join(t, nullptr);

    // A timed wait that is woken in time returns 0.
    s.ready = false;
    ODR_pthread_mutex_lock(&s.m);
    ODR_pthread_create(&t, nullptr, signaller, &s);
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 60;
    int r = 0;
    while (!s.ready && r == 0)
        r = ODR_pthread_cond_timedwait(&s.c, &s.m, &deadline);
    EXPECT_EQ(r, 0);
    ODR_pthread_mutex_unlock(&s.m);
    ODR_pthread_join(t, nullptr);
    ODR_pthread_mutex_destroy(&s.m);
}

TEST(OdrPthread, WrongMagicAborts) {
    auto condAsMutex = kobtest::runChild([] {
        ODR_pthread_cond_t c;
        ODR_pthread_cond_init(&c, nullptr);
        ODR_pthread_mutex_lock(reinterpret_cast<ODR_pthread_mutex_t *>(&c));
    });
    EXPECT_TRUE(kobtest::vasAbort(condAsMutex, "ODR_pthread_mutex_lock", kPthread,
                                  "im->magic == MUTEX_MAGIC"));
    auto mutexAsCond = kobtest::runChild([] {
        ODR_pthread_mutex_t m;
        ODR_pthread_mutex_init(&m, nullptr);
        ODR_pthread_cond_signal(reinterpret_cast<ODR_pthread_cond_t *>(&m));
    });
    EXPECT_TRUE(kobtest::vasAbort(mutexAsCond, "ODR_pthread_cond_signal", kPthread,
                                  "ic->magic == COND_MAGIC"));
    auto waitBadMutex = kobtest::runChild([] {
        ODR_pthread_cond_t c;
        ODR_pthread_cond_init(&c, nullptr);
        ODR_pthread_cond_wait(&c, reinterpret_cast<ODR_pthread_mutex_t *>(&c));
    });
    EXPECT_TRUE(kobtest::vasAbort(waitBadMutex, "ODR_pthread_cond_wait", kPthread,
                                  "im->magic == MUTEX_MAGIC"));
    auto attrAsMutexAttr = kobtest::runChild([] {
        ODR_pthread_mutex_t m;
        ODR_pthread_mutex_init(&m, nullptr);
        ODR_pthread_mutexattr_settype(reinterpret_cast<ODR_pthread_mutexattr_t *>(&m), 1);
    });
    EXPECT_TRUE(kobtest::vasAbort(attrAsMutexAttr, "ODR_pthread_mutexattr_settype", kPthread,
                                  "ia->magic == MUTEXATTR_MAGIC"));
    auto mutexAsThread = kobtest::runChild([] {
        ODR_pthread_mutex_t m;
        ODR_pthread_mutex_init(&m, nullptr);
        ODR_pthread_join(reinterpret_cast<ODR_pthread_t>(m), nullptr);
    });
    EXPECT_TRUE(kobtest::vasAbort(mutexAsThread, "ODR_pthread_join", kPthread,
                                  "it->magic == THREAD_MAGIC"));
    auto initWithMutexAsAttr = kobtest::runChild([] {
        ODR_pthread_mutex_t other;
        ODR_pthread_mutex_init(&other, nullptr);
        ODR_pthread_mutex_t m;
        ODR_pthread_mutex_init(&m, reinterpret_cast<ODR_pthread_mutexattr_t *>(&other));
    });
    EXPECT_TRUE(kobtest::vasAbort(initWithMutexAsAttr, "ODR_pthread_mutex_init", kPthread,
                                  "ia->magic == MUTEXATTR_MAGIC"));
    auto nullAttrCell = kobtest::runChild([] {
        ODR_pthread_mutexattr_t none = nullptr;
        ODR_pthread_mutex_t m;
        ODR_pthread_mutex_init(&m, &none);
    });
    EXPECT_TRUE(kobtest::vasAbort(nullAttrCell, "ODR_pthread_mutex_init", kPthread, "a != NULL"));
}

} // namespace

namespace {

struct Detached {
    Signal go;
    int done[2];
};

// Waits until told to go, then writes its last byte and ends.
void *waitThenFinish(void *arg) {
    auto d = static_cast<Detached *>(arg);
    ODR_pthread_mutex_lock(&d->go.m);
    while (!d->go.ready)
        ODR_pthread_cond_wait(&d->go.c, &d->go.m);
    ODR_pthread_mutex_unlock(&d->go.m);
    (void)!write(d->done[1], "e", 1);
    return nullptr;
}

TEST(OdrPthread, DetachedThreadRunsToTheEnd) {
    // Static: nobody joins the thread, so its mutex is never destroyed.
    static Detached d;
    ODR_pthread_mutex_init(&d.go.m, nullptr);
    ODR_pthread_cond_init(&d.go.c, nullptr);
    ASSERT_EQ(pipe(d.done), 0);
    ODR_pthread_t t;
    ODR_pthread_create(&t, nullptr, waitThenFinish, &d);
    // Detached while it still waits: what it does afterwards must happen.
    EXPECT_EQ(ODR_pthread_detach(t), 0);
    signaller(&d.go);
    // The limit only keeps a broken detach from hanging the test.
    pollfd pfd = {d.done[0], POLLIN, 0};
    ASSERT_EQ(poll(&pfd, 1, 10000), 1);
    char last = 0;
    EXPECT_EQ(read(d.done[0], &last, 1), 1);
    EXPECT_EQ(last, 'e');
    auto r = kobtest::runChild([] {
        ODR_pthread_mutex_t m;
        ODR_pthread_mutex_init(&m, nullptr);
        ODR_pthread_detach(reinterpret_cast<ODR_pthread_t>(m));
    });
    EXPECT_TRUE(kobtest::vasAbort(r, "ODR_pthread_detach", kPthread, "it->magic == THREAD_MAGIC"));
}

} // namespace
