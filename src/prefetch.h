#ifndef PREFETCH_H
#define PREFETCH_H

#include <cstddef>
#include <cstring>

// Walks over a large network visit units that lie all over the heap and,
// beyond a few thousand units, out of the cache. Asking for a unit some
// steps ahead lets its load overlap the work on the units before it
// instead of stalling the walk once per unit. A prefetch is only a hint:
// it never faults and changes no result.
namespace Prefetch
{

// How many units ahead of the walk to ask for.
constexpr int Distance = 16;

// The heap aligns objects to 16 bytes, not to a cache line, so an object
// may reach into one line more than its size needs: a 112-byte unit often
// spans three. Its first byte, every 64 bytes on and its last byte cover
// each line it touches.
template <typename T>
inline void object(const T* object)
{
    const char* bytes = reinterpret_cast<const char*>(object);
    for (size_t offset = 0; offset < sizeof(T); offset += 64)
        __builtin_prefetch(bytes + offset);
    __builtin_prefetch(bytes + sizeof(T) - 1);
}

// The block an implicitly shared container keeps its elements in. The
// container is a single pointer to that block; asking the container for
// its data would load the block's header, the very load being hidden.
template <typename List>
inline void block(const List& list)
{
    static_assert(sizeof(List) == sizeof(void*), "an implicitly shared container is one pointer");
    const void* data;
    std::memcpy(&data, &list, sizeof(data));
    __builtin_prefetch(data);
}

} // namespace Prefetch

#endif // PREFETCH_H
