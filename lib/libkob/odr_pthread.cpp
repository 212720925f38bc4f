// Thread, mutex and condition wrappers with type marks.

#include "odr_pthread.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include "vas.h"

struct odr_thread {
    uint32_t magic;
    pthread_t thread;
};

struct odr_mutex {
    uint32_t magic;
    pthread_mutex_t mtx;
};

struct odr_mutexattr {
    uint32_t magic;
    pthread_mutexattr_t attr;
};

struct odr_cond {
    uint32_t magic;
    pthread_cond_t cond;
};

extern "C" {

int ODR_pthread_create(ODR_pthread_t *thread, const void *attr, void *(*start_routine)(void *),
                       void *arg) {
    VAS_CHECK(attr == nullptr, "attr == NULL");
    // The handle's first level holds one pointer to the record.
    // NOLINTNEXTLINE(bugprone-sizeof-expression)
    auto t = static_cast<ODR_pthread_t>(malloc(sizeof(odr_thread *)));
    VAS_CHECK(t != nullptr, "t != NULL");
    auto it = static_cast<odr_thread *>(malloc(sizeof(odr_thread)));
    VAS_CHECK(it != nullptr, "it != NULL");
    it->magic = THREAD_MAGIC;
    *t = it;
    VAS_CHECK(pthread_create(&it->thread, nullptr, start_routine, arg) == 0,
              "pthread_create(&it->thread, attr, start_routine, arg) == 0");
    *thread = t;
    return 0;
}

int ODR_pthread_detach(ODR_pthread_t thread) {
    odr_thread *it = *thread;
    VAS_CHECK(it->magic == THREAD_MAGIC, "it->magic == THREAD_MAGIC");
    return pthread_detach(it->thread);
}

int ODR_pthread_join(ODR_pthread_t thread, void **value) {
    odr_thread *it = *thread;
    VAS_CHECK(it->magic == THREAD_MAGIC, "it->magic == THREAD_MAGIC");
    return pthread_join(it->thread, value);
}

pthread_t ODR_pthread_self(void) {
    return pthread_self();
}

int ODR_pthread_equal(pthread_t t1, pthread_t t2) {
    return pthread_equal(t1, t2);
}

int ODR_pthread_mutex_init(ODR_pthread_mutex_t *mutex, const ODR_pthread_mutexattr_t *attr) {
    // NOLINTNEXTLINE(bugprone-sizeof-expression)
    auto m = static_cast<ODR_pthread_mutex_t>(malloc(sizeof(odr_mutex *)));
    VAS_CHECK(m != nullptr, "m != NULL");
    auto im = static_cast<odr_mutex *>(malloc(sizeof(odr_mutex)));
    VAS_CHECK(im != nullptr, "im != NULL");
    im->magic = MUTEX_MAGIC;
    if (attr != nullptr) {
        ODR_pthread_mutexattr_t a = *attr;
        VAS_CHECK(a != nullptr, "a != NULL");
        odr_mutexattr *ia = *a;
        VAS_CHECK(ia->magic == MUTEXATTR_MAGIC, "ia->magic == MUTEXATTR_MAGIC");
        VAS_CHECK(pthread_mutex_init(&im->mtx, &ia->attr) == 0,
                  "pthread_mutex_init(&im->mtx, &ia->attr) == 0");
    } else {
        VAS_CHECK(pthread_mutex_init(&im->mtx, nullptr) == 0,
                  "pthread_mutex_init(&im->mtx, NULL) == 0");
    }
    *m = im;
    *mutex = m;
    return 0;
}

int ODR_pthread_mutex_lock(ODR_pthread_mutex_t *mutex) {
    odr_mutex *im = **mutex;
    VAS_CHECK(im->magic == MUTEX_MAGIC, "im->magic == MUTEX_MAGIC");
    return pthread_mutex_lock(&im->mtx);
}

int ODR_pthread_mutex_unlock(ODR_pthread_mutex_t *mutex) {
    odr_mutex *im = **mutex;
    VAS_CHECK(im->magic == MUTEX_MAGIC, "im->magic == MUTEX_MAGIC");
    return pthread_mutex_unlock(&im->mtx);
}

int ODR_pthread_mutex_trylock(ODR_pthread_mutex_t *mutex) {
    odr_mutex *im = **mutex;
    VAS_CHECK(im->magic == MUTEX_MAGIC, "im->magic == MUTEX_MAGIC");
    // The busy code stays the platform's own, unlike the timed wait's code.
    return pthread_mutex_trylock(&im->mtx);
}

int ODR_pthread_mutex_destroy(ODR_pthread_mutex_t *mutex) {
    odr_mutex *im = **mutex;
    VAS_CHECK(im->magic == MUTEX_MAGIC, "im->magic == MUTEX_MAGIC");
    VAS_CHECK(pthread_mutex_destroy(&im->mtx) == 0, "pthread_mutex_destroy(&im->mtx) == 0");
    free(im);
    free(*mutex);
    *mutex = nullptr;
    return 0;
}

int ODR_pthread_mutexattr_init(ODR_pthread_mutexattr_t *attr) {
    // NOLINTNEXTLINE(bugprone-sizeof-expression)
    auto a = static_cast<ODR_pthread_mutexattr_t>(malloc(sizeof(odr_mutexattr *)));
    VAS_CHECK(a != nullptr, "a != NULL");
    auto ia = static_cast<odr_mutexattr *>(malloc(sizeof(odr_mutexattr)));
    VAS_CHECK(ia != nullptr, "ia != NULL");
    ia->magic = MUTEXATTR_MAGIC;
    VAS_CHECK(pthread_mutexattr_init(&ia->attr) == 0, "pthread_mutexattr_init(&ia->attr) == 0");
    *a = ia;
    *attr = a;
    return 0;
}

int ODR_pthread_mutexattr_settype(ODR_pthread_mutexattr_t *attr, int type) {
    odr_mutexattr *ia = **attr;
    VAS_CHECK(ia->magic == MUTEXATTR_MAGIC, "ia->magic == MUTEXATTR_MAGIC");
    int value = -1;
    if ((type & ODR_PTHREAD_MUTEX_RECURSIVE) != 0)
        value = PTHREAD_MUTEX_RECURSIVE;
    VAS_ASSERT(value != -1);
    return pthread_mutexattr_settype(&ia->attr, value);
}

int ODR_pthread_mutexattr_destroy(ODR_pthread_mutexattr_t *attr) {
    odr_mutexattr *ia = **attr;
    VAS_CHECK(ia->magic == MUTEXATTR_MAGIC, "ia->magic == MUTEXATTR_MAGIC");
    VAS_CHECK(pthread_mutexattr_destroy(&ia->attr) == 0,
              "pthread_mutexattr_destroy(&ia->attr) == 0");
    free(ia);
    free(*attr);
    *attr = nullptr;
    return 0;
}

int ODR_pthread_cond_init(ODR_pthread_cond_t *cond, const void *attr) {
    VAS_CHECK(attr == nullptr, "attr == NULL");
    // NOLINTNEXTLINE(bugprone-sizeof-expression)
    auto c = static_cast<ODR_pthread_cond_t>(malloc(sizeof(odr_cond *)));
    VAS_CHECK(c != nullptr, "c != NULL");
    auto ic = static_cast<odr_cond *>(malloc(sizeof(odr_cond)));
    VAS_CHECK(ic != nullptr, "ic != NULL");
    ic->magic = COND_MAGIC;
    VAS_CHECK(pthread_cond_init(&ic->cond, nullptr) == 0,
              "pthread_cond_init(&ic->cond, NULL) == 0");
    *c = ic;
    *cond = c;
    return 0;
}

int ODR_pthread_cond_wait(ODR_pthread_cond_t *cond, ODR_pthread_mutex_t *mutex) {
    odr_cond *ic = **cond;
    VAS_CHECK(ic->magic == COND_MAGIC, "ic->magic == COND_MAGIC");
    odr_mutex *im = **mutex;
    VAS_CHECK(im->magic == MUTEX_MAGIC, "im->magic == MUTEX_MAGIC");
    return pthread_cond_wait(&ic->cond, &im->mtx);
}

int ODR_pthread_cond_timedwait(ODR_pthread_cond_t *cond, ODR_pthread_mutex_t *mutex,
                               const struct timespec *abstime) {
    odr_cond *ic = **cond;
    VAS_CHECK(ic->magic == COND_MAGIC, "ic->magic == COND_MAGIC");
    odr_mutex *im = **mutex;
    VAS_CHECK(im->magic == MUTEX_MAGIC, "im->magic == MUTEX_MAGIC");
    struct timespec ts;
    ts.tv_sec = abstime->tv_sec;
    ts.tv_nsec = abstime->tv_nsec;
    int r = pthread_cond_timedwait(&ic->cond, &im->mtx, &ts);
    if (r == ETIMEDOUT)
        return ODR_ETIMEDOUT;
    if (r != 0)
        VAS_WRONG();
    return 0;
}

int ODR_pthread_cond_signal(ODR_pthread_cond_t *cond) {
    odr_cond *ic = **cond;
    VAS_CHECK(ic->magic == COND_MAGIC, "ic->magic == COND_MAGIC");
    return pthread_cond_signal(&ic->cond);
}

} // extern "C"
