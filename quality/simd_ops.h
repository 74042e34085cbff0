#pragma once

// Thin wrappers over SSE2 and AVX2 integer intrinsics with the same names, so one kernel body
// (a *_simd_body.h file) can be compiled once per instruction set:
//
//   namespace sse2 { KWQ_SIMD_OPS_SSE2 #include "quality/x_simd_body.h" }
//   KWQ_AVX2_REGION_BEGIN
//   namespace avx2 { KWQ_SIMD_OPS_AVX2 #include "quality/x_simd_body.h" }
//   KWQ_AVX2_REGION_END
//
// Functions defined between the region markers are compiled for AVX2 only; callers reach them
// after checking the CPU (simd_path.h).

#include "quality/simd_path.h"

#if KWQ_QUALITY_X86

#include <immintrin.h>

#include <cstdint>

#if defined(__clang__)
#define KWQ_AVX2_REGION_BEGIN \
  _Pragma("clang attribute push(__attribute__((target(\"avx2\"))), apply_to = function)")
#define KWQ_AVX2_REGION_END _Pragma("clang attribute pop")
#else
#define KWQ_AVX2_REGION_BEGIN _Pragma("GCC push_options") _Pragma("GCC target(\"avx2\")")
#define KWQ_AVX2_REGION_END _Pragma("GCC pop_options")
#endif

#define KWQ_SIMD_INLINE static inline __attribute__((always_inline))

namespace kwq::quality::sse2 {

using V = __m128i;
inline constexpr int kBytes = 16;

KWQ_SIMD_INLINE V load(const void* p) {
  return _mm_loadu_si128(static_cast<const V*>(p));
}
KWQ_SIMD_INLINE void store(void* p, V a) {
  _mm_storeu_si128(static_cast<V*>(p), a);
}
// Bytes in the order the pack operations below produce them; SSE2 packs keep order.
KWQ_SIMD_INLINE void storePacked(void* p, V a) {
  store(p, a);
}
KWQ_SIMD_INLINE V zero() {
  return _mm_setzero_si128();
}
KWQ_SIMD_INLINE V set32(int32_t v) {
  return _mm_set1_epi32(v);
}
KWQ_SIMD_INLINE V set16(int16_t v) {
  return _mm_set1_epi16(v);
}
KWQ_SIMD_INLINE V set8(int8_t v) {
  return _mm_set1_epi8(v);
}
KWQ_SIMD_INLINE V lanes32() {
  return _mm_setr_epi32(0, 1, 2, 3);
}
KWQ_SIMD_INLINE V add16(V a, V b) {
  return _mm_add_epi16(a, b);
}
KWQ_SIMD_INLINE V sub16(V a, V b) {
  return _mm_sub_epi16(a, b);
}
KWQ_SIMD_INLINE V add32(V a, V b) {
  return _mm_add_epi32(a, b);
}
KWQ_SIMD_INLINE V sub32(V a, V b) {
  return _mm_sub_epi32(a, b);
}
KWQ_SIMD_INLINE V andV(V a, V b) {
  return _mm_and_si128(a, b);
}
KWQ_SIMD_INLINE V orV(V a, V b) {
  return _mm_or_si128(a, b);
}
/// ~a & b
KWQ_SIMD_INLINE V andNot(V a, V b) {
  return _mm_andnot_si128(a, b);
}
template <int N>
KWQ_SIMD_INLINE V srli16(V a) {
  return _mm_srli_epi16(a, N);
}
template <int N>
KWQ_SIMD_INLINE V srli32(V a) {
  return _mm_srli_epi32(a, N);
}
template <int N>
KWQ_SIMD_INLINE V slli32(V a) {
  return _mm_slli_epi32(a, N);
}
KWQ_SIMD_INLINE V madd16(V a, V b) {
  return _mm_madd_epi16(a, b);
}
KWQ_SIMD_INLINE V minU8(V a, V b) {
  return _mm_min_epu8(a, b);
}
KWQ_SIMD_INLINE V eq8(V a, V b) {
  return _mm_cmpeq_epi8(a, b);
}
KWQ_SIMD_INLINE V eq32(V a, V b) {
  return _mm_cmpeq_epi32(a, b);
}
KWQ_SIMD_INLINE V gt32(V a, V b) {
  return _mm_cmpgt_epi32(a, b);
}
KWQ_SIMD_INLINE V packs32(V a, V b) {
  return _mm_packs_epi32(a, b);
}
KWQ_SIMD_INLINE V packus16(V a, V b) {
  return _mm_packus_epi16(a, b);
}
KWQ_SIMD_INLINE V mulhiU16(V a, V b) {
  return _mm_mulhi_epu16(a, b);
}
/// Per 4-byte pixel of `a` (one row) and `b` (the next): 4 x (byte 1 + byte 1) + (byte 2 +
/// byte 2), in 32-bit lanes.
KWQ_SIMD_INLINE V fourByte1PlusByte2(const uint8_t* a, const uint8_t* b) {
  const V va = load(a), vb = load(b);
  const V odd = add16(srli16<8>(va), srli16<8>(vb));                   // 16-bit (byte 1, byte 3)
  const V even = add16(andV(va, set16(0xFF)), andV(vb, set16(0xFF)));  // (byte 0, byte 2)
  return add32(madd16(odd, set32(0x00000004)), madd16(even, set32(0x00010000)));
}
/// Sum of the 32-bit lanes modulo 2^32.
KWQ_SIMD_INLINE uint32_t sum32(V a) {
  a = _mm_add_epi32(a, _mm_shuffle_epi32(a, _MM_SHUFFLE(1, 0, 3, 2)));
  a = _mm_add_epi32(a, _mm_shuffle_epi32(a, _MM_SHUFFLE(2, 3, 0, 1)));
  return static_cast<uint32_t>(_mm_cvtsi128_si32(a));
}

}  // namespace kwq::quality::sse2

KWQ_AVX2_REGION_BEGIN
namespace kwq::quality::avx2 {

using V = __m256i;
inline constexpr int kBytes = 32;

KWQ_SIMD_INLINE V load(const void* p) {
  return _mm256_loadu_si256(static_cast<const V*>(p));
}
KWQ_SIMD_INLINE void store(void* p, V a) {
  _mm256_storeu_si256(static_cast<V*>(p), a);
}
// AVX2 packs work within each 128-bit half, so two packs in a row leave 16-bit units of the
// halves interleaved (low half: units 0, 2, 4, ...; high half: 1, 3, 5, ...). This restores
// the order.
KWQ_SIMD_INLINE void storePacked(void* p, V a) {
  const __m128i lo = _mm256_castsi256_si128(a);
  const __m128i hi = _mm256_extracti128_si256(a, 1);
  auto* out = static_cast<__m128i*>(p);
  _mm_storeu_si128(out, _mm_unpacklo_epi16(lo, hi));
  _mm_storeu_si128(out + 1, _mm_unpackhi_epi16(lo, hi));
}
KWQ_SIMD_INLINE V zero() {
  return _mm256_setzero_si256();
}
KWQ_SIMD_INLINE V set32(int32_t v) {
  return _mm256_set1_epi32(v);
}
KWQ_SIMD_INLINE V set16(int16_t v) {
  return _mm256_set1_epi16(v);
}
KWQ_SIMD_INLINE V set8(int8_t v) {
  return _mm256_set1_epi8(v);
}
KWQ_SIMD_INLINE V lanes32() {
  return _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
}
KWQ_SIMD_INLINE V add16(V a, V b) {
  return _mm256_add_epi16(a, b);
}
KWQ_SIMD_INLINE V sub16(V a, V b) {
  return _mm256_sub_epi16(a, b);
}
KWQ_SIMD_INLINE V add32(V a, V b) {
  return _mm256_add_epi32(a, b);
}
KWQ_SIMD_INLINE V sub32(V a, V b) {
  return _mm256_sub_epi32(a, b);
}
KWQ_SIMD_INLINE V andV(V a, V b) {
  return _mm256_and_si256(a, b);
}
KWQ_SIMD_INLINE V orV(V a, V b) {
  return _mm256_or_si256(a, b);
}
KWQ_SIMD_INLINE V andNot(V a, V b) {
  return _mm256_andnot_si256(a, b);
}
template <int N>
KWQ_SIMD_INLINE V srli16(V a) {
  return _mm256_srli_epi16(a, N);
}
template <int N>
KWQ_SIMD_INLINE V srli32(V a) {
  return _mm256_srli_epi32(a, N);
}
template <int N>
KWQ_SIMD_INLINE V slli32(V a) {
  return _mm256_slli_epi32(a, N);
}
KWQ_SIMD_INLINE V madd16(V a, V b) {
  return _mm256_madd_epi16(a, b);
}
KWQ_SIMD_INLINE V minU8(V a, V b) {
  return _mm256_min_epu8(a, b);
}
KWQ_SIMD_INLINE V eq8(V a, V b) {
  return _mm256_cmpeq_epi8(a, b);
}
KWQ_SIMD_INLINE V eq32(V a, V b) {
  return _mm256_cmpeq_epi32(a, b);
}
KWQ_SIMD_INLINE V gt32(V a, V b) {
  return _mm256_cmpgt_epi32(a, b);
}
KWQ_SIMD_INLINE V packs32(V a, V b) {
  return _mm256_packs_epi32(a, b);
}
KWQ_SIMD_INLINE V packus16(V a, V b) {
  return _mm256_packus_epi16(a, b);
}
KWQ_SIMD_INLINE V mulhiU16(V a, V b) {
  return _mm256_mulhi_epu16(a, b);
}
KWQ_SIMD_INLINE V fourByte1PlusByte2(const uint8_t* a, const uint8_t* b) {
  const V weights = set32(0x00010400);  // bytes (0, 4, 1, 0): 16-bit lanes (4 byte 1, byte 2)
  const V sum =
      add16(_mm256_maddubs_epi16(load(a), weights), _mm256_maddubs_epi16(load(b), weights));
  return madd16(sum, set16(1));
}
KWQ_SIMD_INLINE uint32_t sum32(V a) {
  __m128i s = _mm_add_epi32(_mm256_castsi256_si128(a), _mm256_extracti128_si256(a, 1));
  s = _mm_add_epi32(s, _mm_shuffle_epi32(s, _MM_SHUFFLE(1, 0, 3, 2)));
  s = _mm_add_epi32(s, _mm_shuffle_epi32(s, _MM_SHUFFLE(2, 3, 0, 1)));
  return static_cast<uint32_t>(_mm_cvtsi128_si32(s));
}

}  // namespace kwq::quality::avx2
KWQ_AVX2_REGION_END

#endif  // KWQ_QUALITY_X86
