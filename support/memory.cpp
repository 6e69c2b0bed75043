#include "support/memory.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace vx {
namespace {

// Each block carries its size in a header so that frees and reallocations can
// be accounted without the caller passing the size back. 16 bytes keep the
// payload aligned for any scalar type.
constexpr size_t kHeader = 16;

std::atomic<int64_t> g_bytes{0};
std::atomic<uint64_t> g_allocs{0};
std::atomic<uint64_t> g_frees{0};

size_t& SizeOf(void* block) { return *static_cast<size_t*>(block); }

}  // namespace

void* VxMemoryFuncMalloc(size_t size) {
  void* block = std::malloc(size + kHeader);
  if (!block) return nullptr;
  SizeOf(block) = size;
  g_bytes.fetch_add(static_cast<int64_t>(size), std::memory_order_relaxed);
  g_allocs.fetch_add(1, std::memory_order_relaxed);
  return static_cast<char*>(block) + kHeader;
}

void* VxMemoryFuncRealloc(void* p, size_t size) {
  if (!p) return VxMemoryFuncMalloc(size);
  void* block = static_cast<char*>(p) - kHeader;
  size_t old = SizeOf(block);
  void* grown = std::realloc(block, size + kHeader);
  if (!grown) return nullptr;
  SizeOf(grown) = size;
  g_bytes.fetch_add(static_cast<int64_t>(size) - static_cast<int64_t>(old),
                    std::memory_order_relaxed);
  g_allocs.fetch_add(1, std::memory_order_relaxed);
  g_frees.fetch_add(1, std::memory_order_relaxed);
  return static_cast<char*>(grown) + kHeader;
}

void VxMemoryFuncFree(void* p) {
  if (!p) return;
  void* block = static_cast<char*>(p) - kHeader;
  g_bytes.fetch_sub(static_cast<int64_t>(SizeOf(block)), std::memory_order_relaxed);
  g_frees.fetch_add(1, std::memory_order_relaxed);
  std::free(block);
}

VxMemoryUsage VxMemoryGetUsage() {
  return {g_bytes.load(std::memory_order_relaxed), g_allocs.load(std::memory_order_relaxed),
          g_frees.load(std::memory_order_relaxed)};
}

}  // namespace vx
