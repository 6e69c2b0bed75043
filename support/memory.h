// Memory accounting for the engine's state containers.
//
// Every allocation made through `VxMemoryFuncMalloc` (and so through the
// `VxMemory...` containers) is counted process-wide, so a server can read how
// much memory its expression state holds and how many allocations a code path
// makes. The counters are atomic; reading them is cheap.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <new>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace vx {

void* VxMemoryFuncMalloc(size_t size);
// Grows or shrinks a block from VxMemoryFuncMalloc; nullptr acts as malloc.
void* VxMemoryFuncRealloc(void* p, size_t size);
void VxMemoryFuncFree(void* p);

struct VxMemoryUsage {
  int64_t bytes_in_use;      // bytes currently allocated through the accounted functions
  uint64_t allocations;      // number of allocations since process start
  uint64_t deallocations;    // number of frees since process start
};
VxMemoryUsage VxMemoryGetUsage();

template <class T>
struct VxMemoryObjectAllocator {
  using value_type = T;
  VxMemoryObjectAllocator() noexcept = default;
  template <class U>
  VxMemoryObjectAllocator(const VxMemoryObjectAllocator<U>&) noexcept {}
  T* allocate(size_t n) {
    void* p = VxMemoryFuncMalloc(n * sizeof(T));
    if (!p) throw std::bad_alloc();
    return static_cast<T*>(p);
  }
  void deallocate(T* p, size_t) noexcept { VxMemoryFuncFree(p); }
  template <class U>
  bool operator==(const VxMemoryObjectAllocator<U>&) const noexcept {
    return true;
  }
};

template <class T>
using VxMemoryVector = std::vector<T, VxMemoryObjectAllocator<T>>;
template <class T>
using VxMemoryDeque = std::deque<T, VxMemoryObjectAllocator<T>>;
template <class T, class Less = std::less<T>>
using VxMemorySet = std::set<T, Less, VxMemoryObjectAllocator<T>>;
template <class T, class Less = std::less<T>>
using VxMemoryMultiSet = std::multiset<T, Less, VxMemoryObjectAllocator<T>>;
template <class K, class V, class Less = std::less<K>>
using VxMemoryMap = std::map<K, V, Less, VxMemoryObjectAllocator<std::pair<const K, V>>>;
template <class T, class Hash = std::hash<T>, class Eq = std::equal_to<T>>
using VxMemoryHashSet = std::unordered_set<T, Hash, Eq, VxMemoryObjectAllocator<T>>;
template <class T, class Hash = std::hash<T>, class Eq = std::equal_to<T>>
using VxMemoryHashMultiSet = std::unordered_multiset<T, Hash, Eq, VxMemoryObjectAllocator<T>>;
template <class K, class V, class Hash = std::hash<K>, class Eq = std::equal_to<K>>
using VxMemoryHashMap =
    std::unordered_map<K, V, Hash, Eq, VxMemoryObjectAllocator<std::pair<const K, V>>>;
using VxMemoryString = std::basic_string<char, std::char_traits<char>, VxMemoryObjectAllocator<char>>;

}  // namespace vx
