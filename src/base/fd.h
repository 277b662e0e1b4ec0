// Descriptor fields that two threads use. They stay plain ints in their records; every read and
// write of such a field goes through these, so that neither thread ever sees half a store. Any
// thread; takes no lock. (Who may close a field is its record's rule: see server/phone_server.h.)
#pragma once

inline int fd_load(const int* field)
{
    return __atomic_load_n(field, __ATOMIC_RELAXED);
}

inline void fd_store(int* field, int fd)
{
    __atomic_store_n(field, fd, __ATOMIC_RELAXED);
}
