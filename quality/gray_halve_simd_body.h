// Vector body of the gray reduction by 2 of 4-byte pixels. Included once per instruction set
// inside a namespace that provides V, kBytes and the operations of simd_ops.h; no include
// guard.

/// Writes the largest multiple of kBytes output pixels of one output row that fits in `count`
/// and returns how many it wrote; row0 and row1 point at the first source pixel pair.
size_t halveRowPacked4(const uint8_t* row0, const uint8_t* row1, uint8_t* out, size_t count) {
  constexpr size_t kOutputs = kBytes;  // consumes 2 x kBytes pixels = 8 vectors of each row
  const V ones = set16(1);
  const V reciprocal = set16(static_cast<int16_t>(52429));  // (x x 52429) >> 20 == x / 20
  size_t x = 0;
  for (; x + kOutputs <= count; x += kOutputs) {
    const uint8_t* a = row0 + 8 * x;
    const uint8_t* b = row1 + 8 * x;
    V sums[4];
    for (int s = 0; s < 4; ++s) {
      const V left = fourByte1PlusByte2(a + 2 * s * kBytes, b + 2 * s * kBytes);
      const V right = fourByte1PlusByte2(a + (2 * s + 1) * kBytes, b + (2 * s + 1) * kBytes);
      // Column weights are at most 2550 and pair sums at most 5100: packs never saturate.
      sums[s] = madd16(packs32(left, right), ones);
    }
    const V lo = srli16<4>(mulhiU16(packs32(sums[0], sums[1]), reciprocal));
    const V hi = srli16<4>(mulhiU16(packs32(sums[2], sums[3]), reciprocal));
    storePacked(out + x, packus16(lo, hi));
  }
  return x;
}
