// Tiles of sums that stay in registers, for one instruction set. IntegerDots.cpp includes this once
// for each of them, within a namespace and with the compiler's options for it.
//
// The struct `Vectors` there is the instruction set:
//   Sums, Codes, Inputs       types. Sums are those of the outputs of one part of a panel
//   kParts                    parts of a panel
//   kSigned                   whether load() frees codes of their offset
//   kStep                     groups of inputs that dot() takes at once: 1 or 2
//   kInputBytes               of a group of inputs
//   kFrames                   the most frames of a tile
//   partsFor(frames)          the parts that fill the registers with so many frames
//   kLineParts, kLineChains   for one frame: parts at once, and chains of sums of each
//   kLineFetches              for one frame: whether it fetches codes ahead where they stream
//   splat(int)                sums that are all the same
//   load(group, bits, part)   the codes of a part of a group of 8 or 4 bits
//   inputs(group)             a group of inputs, the same for each output
//   dot(sums, codes, inputs)  adds products to sums
//   dot(sums, codes, inputs, codes, inputs)  those of two groups, where kStep is 2
//   add(sums, sums)
//   store(sums, int32_t*)     those of a part, in the order of outputs
//   leave()                   makes the registers what others expect of them

// A part of a panel is known by its number, counted from the first part of the first panel on.
template <int kBits>
HWY_INLINE Vectors::Codes codesOf(const uint8_t* group, std::size_t panelBytes, int part) {
  const auto panel = static_cast<std::size_t>(part / Vectors::kParts);
  return Vectors::load(group + panel * panelBytes, kBits, part % Vectors::kParts);
}

// Adds kStep groups of inputs to the sums of R parts, from part `first` on, and F frames.
template <int kBits, int R, int F, int kStep>
HWY_INLINE void addGroups(const uint8_t* group, std::size_t panelBytes, int first,
                          const int8_t* input, std::size_t stride, Vectors::Sums (&sums)[R][F]) {
  constexpr std::size_t kGroupBytes = rowCodeBlockBytes(kBits);
  Vectors::Codes codes[kStep][R];
  HWY_UNROLL(2)
  for (int s = 0; s < kStep; ++s) {
    HWY_UNROLL(8)
    for (int r = 0; r < R; ++r) {
      const uint8_t* const at = group + static_cast<std::size_t>(s) * kGroupBytes;
      codes[s][r] = codesOf<kBits>(at, panelBytes, first + r);
    }
  }
  HWY_UNROLL(8)
  for (int f = 0; f < F; ++f) {
    const int8_t* const at = input + static_cast<std::size_t>(f) * stride;
    const Vectors::Inputs in = Vectors::inputs(at);
    if constexpr (kStep == 2) {
      const Vectors::Inputs next = Vectors::inputs(at + Vectors::kInputBytes);
      HWY_UNROLL(8)
      for (int r = 0; r < R; ++r) {
        sums[r][f] = Vectors::dot(sums[r][f], codes[0][r], in, codes[1][r], next);
      }
    } else {
      HWY_UNROLL(8)
      for (int r = 0; r < R; ++r) sums[r][f] = Vectors::dot(sums[r][f], codes[0][r], in);
    }
  }
}

// Where a tile's sums begin, and how far frames lie apart there.
struct TilePlace {
  int32_t* sums;
  std::size_t stride;
};

// Codes to fetch, a group of each panel at a time.
struct FetchedPanels {
  const uint8_t* group;
  std::size_t panelBytes;
  std::size_t panels;

  HWY_INLINE void fetch(std::size_t bytes) {
    for (std::size_t p = 0; p < panels; ++p) prefetchOuter(group + p * panelBytes);
    group += bytes;
  }
};

// The same for one frame, which reads each code once: what lies a fixed way ahead, in the panels
// of the R parts that are summed together or, near their end, in as many behind them.
template <int R>
struct LinesAhead {
  static constexpr std::size_t kPanels = R > Vectors::kParts ? R / Vectors::kParts : 1;

  std::size_t groups;
  std::size_t panelBytes;
  std::size_t distance;  // groups
  std::size_t bytes;

  HWY_INLINE LinesAhead(std::size_t groupsOfPanel, std::size_t groupBytes)
      : groups(groupsOfPanel),
        panelBytes(groupsOfPanel * groupBytes),
        distance(groupsOfPanel < 8192 / groupBytes ? groupsOfPanel : 8192 / groupBytes),
        bytes(distance * groupBytes) {}
  // The bytes from group g, which is to be summed, to what is to be fetched.
  HWY_INLINE std::size_t from(std::size_t g) const {
    return g + distance < groups ? bytes : bytes + (kPanels - 1) * panelBytes;
  }
  HWY_INLINE void fetch(const uint8_t* at) const {
    HWY_UNROLL(4)
    for (std::size_t p = 0; p < kPanels; ++p) prefetchOuter(at + p * panelBytes);
  }
};

// The sums of R parts, from part `first` on, and F frames. Each has as many chains, which take
// turns with the inputs, so that none waits for the addition before.
template <int kBits, int R, int F, int kChains, bool kStreams>
HWY_INLINE void sumTile(const RowCodesView& codes, const uint8_t* panel, int first,
                        const ByteFrames& x, FetchedPanels ahead, const int32_t* start,
                        const TilePlace& to) {
  constexpr std::size_t kStep = Vectors::kStep;
  constexpr std::size_t kRound = kStep * kChains;
  constexpr std::size_t kGroupBytes = rowCodeBlockBytes(kBits);
  constexpr std::size_t kPartRows = kRowCodePanel / Vectors::kParts;
  const std::size_t groups = groupsOf(codes);
  const std::size_t panelBytes = groups * kGroupBytes;
  Vectors::Sums sums[kChains][R][F];
  HWY_UNROLL(8)
  for (int c = 0; c < kChains; ++c) {
    HWY_UNROLL(8)
    for (int r = 0; r < R; ++r) {
      HWY_UNROLL(8)
      for (int f = 0; f < F; ++f) sums[c][r][f] = Vectors::splat(c == 0 ? start[f] : 0);
    }
  }
  const int8_t* input = x.bytes;
  const LinesAhead<R> line(groups, kGroupBytes);
  std::size_t g = 0;
  for (; g + kRound <= groups; g += kRound) {
    const std::size_t lineAhead = line.from(g);
    HWY_UNROLL(8)
    for (int c = 0; c < kChains; ++c) {
      if (F == 1) {
        if (kStreams) line.fetch(panel + lineAhead);
      } else if (ahead.panels > 0) {
        ahead.fetch(kStep * kGroupBytes);
      }
      addGroups<kBits, R, F, kStep>(panel, panelBytes, first, input, x.stride, sums[c]);
      panel += kStep * kGroupBytes;
      input += kStep * Vectors::kInputBytes;
    }
  }
  for (; g < groups; ++g) {
    addGroups<kBits, R, F, 1>(panel, panelBytes, first, input, x.stride, sums[0]);
    panel += kGroupBytes;
    input += Vectors::kInputBytes;
  }
  HWY_UNROLL(8)
  for (int r = 0; r < R; ++r) {
    HWY_UNROLL(8)
    for (int f = 0; f < F; ++f) {
      Vectors::Sums sum = sums[0][r][f];
      HWY_UNROLL(8)
      for (int c = 1; c < kChains; ++c) sum = Vectors::add(sum, sums[c][r][f]);
      Vectors::store(sum, to.sums + static_cast<std::size_t>(f) * to.stride +
                              static_cast<std::size_t>(first + r) * kPartRows);
    }
  }
}

// The sums of as many whole panels as kParts says; a tile may be less than a panel.
template <int kBits, int kParts, int F, int kChains, int kTile, bool kStreams>
void sumPanels(const RowCodesView& codes, const uint8_t* panel, const ByteFrames& x,
               FetchedPanels ahead, const int32_t* start, const TilePlace& to) {
  HWY_UNROLL(1)
  for (int first = 0; first < kParts; first += kTile) {
    sumTile<kBits, kTile, F, kChains, kStreams>(codes, panel, first, x, ahead, start, to);
    ahead.panels = 0;
  }
}

// Panels in tiles of some parts, as long as they last, then one by one. One frame reads each code
// once, so what it fetches lies a fixed way ahead.
template <int kBits, int F, int kTile, int kChains, bool kStreams>
void sumFrames(const RowCodesView& codes, std::size_t first, std::size_t panels,
               const ByteFrames& x, const CodesAhead& ahead, int32_t* sums) {
  constexpr int kParts = Vectors::kParts;
  constexpr int kPanels = kTile > kParts ? kTile / kParts : 1;
  constexpr uint32_t kBias = Vectors::kSigned ? 0 : rowCodeBias(kBits);
  int32_t start[F];
  for (int f = 0; f < F; ++f) {  // modulo 2^32: the bias alone may take a sum out of 32 bits
    start[f] = static_cast<int32_t>(0 - kBias * static_cast<uint32_t>(x.sums[f]));
  }
  const std::size_t panelBytes = groupsOf(codes) * rowCodeBlockBytes(kBits);
  const std::size_t stride = panels * kRowCodePanel;
  const uint8_t* panel = codes.codes + first * panelBytes;
  FetchedPanels fetched{codes.codes + ahead.first * panelBytes, panelBytes, ahead.panels};
  constexpr auto kAtOnce = static_cast<std::size_t>(kPanels);
  std::size_t p = 0;
  for (; p + kAtOnce <= panels; p += kAtOnce) {
    sumPanels<kBits, kPanels * kParts, F, kChains, kTile, kStreams>(
        codes, panel, x, fetched, start, {sums + p * kRowCodePanel, stride});
    fetched.panels = 0;
    panel += kAtOnce * panelBytes;
  }
  constexpr int kRest = kTile < kParts ? kTile : kParts;
  for (; p < panels; ++p) {
    sumPanels<kBits, kParts, F, kChains, kRest, kStreams>(codes, panel, x, fetched, start,
                                                          {sums + p * kRowCodePanel, stride});
    fetched.panels = 0;
    panel += panelBytes;
  }
}

// The same for any number of frames up to those of a tile.
template <int kBits, int F>
void sumUpTo(const RowCodesView& codes, std::size_t first, std::size_t panels, const ByteFrames& x,
             const CodesAhead& ahead, int32_t* sums) {
  if constexpr (F == 1) {
    constexpr int kTile = Vectors::kLineParts;
    constexpr int kChains = Vectors::kLineChains;
    const auto sum = ahead.stream ? sumFrames<kBits, 1, kTile, kChains, Vectors::kLineFetches>
                                  : sumFrames<kBits, 1, kTile, kChains, false>;
    sum(codes, first, panels, x, ahead, sums);
  } else {
    if (x.frames < F) return sumUpTo<kBits, F - 1>(codes, first, panels, x, ahead, sums);
    sumFrames<kBits, F, Vectors::partsFor(F), 1, false>(codes, first, panels, x, ahead, sums);
  }
}

void dots(const RowCodesView& codes, std::size_t first, std::size_t panels, const ByteFrames& x,
          const CodesAhead& ahead, int32_t* sums) {
  const auto sum = codes.bits == 4 ? sumUpTo<4, Vectors::kFrames> : sumUpTo<8, Vectors::kFrames>;
  sum(codes, first, panels, x, ahead, sums);
  Vectors::leave();
}
