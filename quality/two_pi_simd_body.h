// Vector body of the two-pi block filter. Included once per instruction set inside a
// namespace that provides V, kBytes and the operations of simd_ops.h; no include guard.

namespace {

inline constexpr int kTwoPiLanes = kBytes / 4;  // one 32-bit lane per group or block

// Fills the per-square sums of `band` (rows 39 + 4 band .. 42 + 4 band).
KWQ_SIMD_INLINE void twoPiBand(const uint8_t* raster, int band, two_pi::Band& out) {
  using namespace two_pi;
  const uint8_t* row = raster + (kOrigin + 4 * band) * kStride + kOrigin;
  const V lowBytes = set16(0x00FF);
  const V ones = set16(1);
  const V darkLimit = set8(static_cast<int8_t>(199));
  const V topFlags = set32(kTopFirst | kTopLast);
  const V bottomFlags = set32(kBottomFirst | kBottomLast);
  for (int g = 0; g < kComputedGroups; g += kTwoPiLanes) {
    const uint8_t* p = row + 4 * g;
    const V r0 = load(p), r1 = load(p + kStride), r2 = load(p + 2 * kStride),
            r3 = load(p + 3 * kStride);
    // 16-bit lanes per group: (pixel 0 + pixel 1, pixel 2 + pixel 3) of one row.
    const V s0 = add16(andV(r0, lowBytes), srli16<8>(r0));
    const V s1 = add16(andV(r1, lowBytes), srli16<8>(r1));
    const V s2 = add16(andV(r2, lowBytes), srli16<8>(r2));
    const V s3 = add16(andV(r3, lowBytes), srli16<8>(r3));
    const V top = add16(s0, s1), bottom = add16(s2, s3);
    const V alt = add16(sub16(s0, s1), sub16(s2, s3));
    store(out.total + g, madd16(add16(top, bottom), ones));
    store(out.alt + g, madd16(alt, ones));
    store(out.top + g, top);
    store(out.bottom + g, bottom);
    const V dark0 = eq8(minU8(r0, darkLimit), r0), dark3 = eq8(minU8(r3, darkLimit), r3);
    store(out.bright + g, orV(andNot(dark0, topFlags), andNot(dark3, bottomFlags)));
  }
}

// Accumulators of the block filter, one per lane: row, all, clean sums and minus the count of
// clean blocks. (Plain variables rather than a struct, so no implicit member function is
// compiled outside the instruction set of this body.)
// Adds the blocks whose upper squares are in `upper` and lower squares in `lower`.
KWQ_SIMD_INLINE void twoPiBlocks(const two_pi::Band& upper, const two_pi::Band& lower, V& rowSum,
                                 V& allSum, V& cleanSum, V& cleanNegCount) {
  using namespace two_pi;
  const V low16 = set32(0xFFFF), round = set32(128), blockLimit = set32(kBlockCols);
  const V maskUL = set32(kMaskUpperLeft), maskUR = set32(kMaskUpperRight);
  const V maskLL = set32(kMaskLowerLeft), maskLR = set32(kMaskLowerRight);
  V index = lanes32();
  for (int b = 0; b < kBlockCols; b += kTwoPiLanes, index = add32(index, set32(kTwoPiLanes))) {
    const V total = add32(add32(load(upper.total + b), load(upper.total + b + 1)),
                          add32(load(lower.total + b), load(lower.total + b + 1)));
    const V alt = add32(add32(load(upper.alt + b), load(upper.alt + b + 1)),
                        add32(load(lower.alt + b), load(lower.alt + b + 1)));
    // Inner 4 x 4: right cells of group b and left cells of group b + 1, rows 2..5. Cell sums
    // are at most 1020, so adding packed (left | right << 16) words never carries.
    const V mid0 = add32(load(upper.bottom + b), load(lower.top + b));
    const V mid1 = add32(load(upper.bottom + b + 1), load(lower.top + b + 1));
    const V inner = add32(srli32<16>(mid0), andV(mid1, low16));
    // Lanes past the last block get Q = A = 0, whose terms are 0, and never count as clean.
    const V valid = gt32(blockLimit, index);
    const V keep = andV(valid, low16);
    // |Q| <= 12240 and |A| <= 8160 fit in 16 bits; with the upper half cleared, madd gives
    // exactly the 32-bit square.
    const V q = andV(sub32(slli32<2>(inner), total), keep);
    const V a = andV(alt, keep);
    const V qTerm = srli32<8>(add32(madd16(q, q), round));
    allSum = add32(allSum, qTerm);
    rowSum = add32(rowSum, srli32<8>(add32(madd16(a, a), round)));
    const V bright =
        orV(orV(andV(load(upper.bright + b), maskUL), andV(load(upper.bright + b + 1), maskUR)),
            orV(andV(load(lower.bright + b), maskLL), andV(load(lower.bright + b + 1), maskLR)));
    const V clean = andV(eq32(bright, zero()), valid);
    cleanSum = add32(cleanSum, andV(qTerm, clean));
    cleanNegCount = add32(cleanNegCount, clean);  // clean lanes are -1
  }
}

}  // namespace

two_pi::Sums twoPiSums(const uint8_t* raster) {
  two_pi::Band bands[2] = {};  // slots past the computed groups stay 0
  V rowSum = zero(), allSum = zero(), cleanSum = zero(), cleanNegCount = zero();
  twoPiBand(raster, 0, bands[0]);
  for (int a = 0; a < two_pi::kBlockRows; ++a) {
    twoPiBand(raster, a + 1, bands[(a + 1) & 1]);
    twoPiBlocks(bands[a & 1], bands[(a + 1) & 1], rowSum, allSum, cleanSum, cleanNegCount);
  }
  two_pi::Sums sums;
  sums.rowSum = sum32(rowSum);
  sums.allSum = sum32(allSum);
  sums.cleanSum = sum32(cleanSum);
  sums.cleanCount = 1u - sum32(cleanNegCount);
  return sums;
}
