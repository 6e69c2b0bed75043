// Well-mixed 64-bit hashes of values, for the engine's hashed containers
// (the evaluator map, the hashed multiplicity maps of accumulators).
//
// Every bit of the input affects every bit of the output, so keys that
// differ in a few low bits (small integers, consecutive values) spread over
// all buckets of an open-addressing table, which takes its bucket from some
// bits and a tag from others. The hashes are deterministic (no per-process
// seed): a run is repeatable.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vx {

// The finaliser of MurmurHash3: a bijection of 64-bit words with full
// avalanche.
inline uint64_t CpxMix64(uint64_t x) {
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdu;
  x ^= x >> 33;
  x *= 0xc4ceb9fe1a85ec53u;
  x ^= x >> 33;
  return x;
}

// Combines a running hash with the hash of one more part.
inline uint64_t CpxHashCombine(uint64_t h, uint64_t part) {
  return CpxMix64(h ^ (part + 0x9e3779b97f4a7c15u + (h << 6) + (h >> 2)));
}

// The bytes [p, p + n), eight at a time; the length takes part, so a prefix
// and its extension by zero bytes hash apart.
inline uint64_t CpxHashBytes(const void* p, size_t n) {
  const auto* b = static_cast<const unsigned char*>(p);
  uint64_t h = CpxMix64(n + 0x27d4eb2f165667c5u);
  for (; n >= 8; n -= 8, b += 8) {
    uint64_t w;
    std::memcpy(&w, b, 8);
    h = CpxMix64(h ^ w) * 0x9e3779b97f4a7c15u;
  }
  if (n) {
    // The last 1 ... 7 bytes in one word, read without a loop: two
    // overlapping 4-byte reads, or three single bytes (the length is
    // already in h, so the overlap loses nothing).
    uint64_t w;
    if (n >= 4) {
      uint32_t lo, hi;
      std::memcpy(&lo, b, 4);
      std::memcpy(&hi, b + n - 4, 4);
      w = uint64_t{lo} | uint64_t{hi} << 32;
    } else {
      w = uint64_t{b[0]} | uint64_t{b[n / 2]} << 8 | uint64_t{b[n - 1]} << 16;
    }
    h = CpxMix64(h ^ w) * 0x9e3779b97f4a7c15u;
  }
  return CpxMix64(h);
}

}  // namespace vx
