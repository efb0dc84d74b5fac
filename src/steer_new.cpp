// The C++ allocation functions of the daemon, over malloc and free. The
// daemon allocates its records with new (std::nothrow) and nothing else of
// the C++ library, so with these a router needs no libstdc++ to run it.
#include <cstdlib>
#include <new>

void *operator new(std::size_t size, const std::nothrow_t &) noexcept
{
    return malloc(size ? size : 1);
}

void *operator new[](std::size_t size, const std::nothrow_t &) noexcept
{
    return malloc(size ? size : 1);
}

void operator delete(void *p) noexcept
{
    free(p);
}

void operator delete(void *p, std::size_t) noexcept
{
    free(p);
}

void operator delete[](void *p) noexcept
{
    free(p);
}

void operator delete[](void *p, std::size_t) noexcept
{
    free(p);
}
