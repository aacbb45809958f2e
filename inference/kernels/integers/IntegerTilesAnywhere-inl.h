// One frame over codes of 8 bits that do not begin where a vector should, as those of an image
// seldom do: many loads would take two lines of the cache. IntegerDots.cpp includes this behind
// IntegerTiles-inl.h, for instruction sets with long vectors.
//
// Here loads are where vectors should be. Such a vector holds the last lanes of one part of a panel
// and the first ones of the next, so where the two take different inputs, so do its lanes; and the
// sums of a panel come out turned by some lanes. Lanes of other panels, or of what lies around the
// codes, are masked out of a load and so not read.
//
// The struct `Vectors` has besides:
//   Line, Lanes                   types: a vector of codes as they lie, some lanes of one
//   lanesFrom(n), lanesBefore(n)  the lanes from n on, and those before
//   line(at), lineOf(lanes, at)   loads a vector, or some lanes of it, with zeros for the others
//   codesOf(line)                 its codes as load() gives them
//   mixed(lanes, a, b)            inputs: b in these lanes, a in the others
//   storeTurned(sums, n, to)      the sums of a panel's parts, from lane n of the first one on
//   kSeamPanels, kSeamChains      panels at once, and chains of sums of each of their parts

constexpr std::size_t kLineBytes = kRowCodeBlock / Vectors::kParts;

// Sums of R panels.
template <int R>
using LineSums = Vectors::Sums[R][Vectors::kParts];

// A vector of each of R panels, of which only some lanes are theirs: where they begin or end.
template <int R>
HWY_INLINE void addLanes(const uint8_t* line, std::size_t panelBytes, Vectors::Lanes lanes,
                         Vectors::Inputs in, LineSums<R>& sums) {
  HWY_UNROLL(8)
  for (int r = 0; r < R; ++r) {
    const uint8_t* const at = line + static_cast<std::size_t>(r) * panelBytes;
    sums[r][0] = Vectors::dot(sums[r][0], Vectors::codesOf(Vectors::lineOf(lanes, at)), in);
  }
}

// The vectors of a group of inputs, but not the first one. Their lanes are all of that group.
template <int R>
HWY_INLINE void addRest(const uint8_t* line, std::size_t panelBytes, Vectors::Inputs in,
                        LineSums<R>& sums) {
  HWY_UNROLL(8)
  for (int r = 0; r < R; ++r) {
    const uint8_t* at = line + static_cast<std::size_t>(r) * panelBytes;
    HWY_UNROLL(8)
    for (int p = 1; p < Vectors::kParts; ++p) {
      at += kLineBytes;
      sums[r][p] = Vectors::dot(sums[r][p], Vectors::codesOf(Vectors::line(at)), in);
    }
  }
}

// All vectors of the group of inputs at x, of which the first has lanes of the group before, too.
// Returns the group's inputs.
template <int R>
HWY_INLINE Vectors::Inputs addGroup(const uint8_t* line, std::size_t panelBytes, Vectors::Lanes own,
                                    Vectors::Inputs before, const int8_t* x, LineSums<R>& sums) {
  const Vectors::Inputs in = Vectors::inputs(x);
  const Vectors::Inputs first = Vectors::mixed(own, before, in);
  HWY_UNROLL(8)
  for (int r = 0; r < R; ++r) {
    const uint8_t* const at = line + static_cast<std::size_t>(r) * panelBytes;
    sums[r][0] = Vectors::dot(sums[r][0], Vectors::codesOf(Vectors::line(at)), first);
  }
  addRest<R>(line, panelBytes, in, sums);
  return in;
}

template <int R, int kChains>
HWY_INLINE void beginChains(int32_t start, LineSums<R> (&sums)[kChains]) {
  HWY_UNROLL(8)
  for (int c = 0; c < kChains; ++c) {
    HWY_UNROLL(8)
    for (int r = 0; r < R; ++r) {
      HWY_UNROLL(8)
      for (int p = 0; p < Vectors::kParts; ++p) sums[c][r][p] = Vectors::splat(c == 0 ? start : 0);
    }
  }
}

template <int R, int kChains>
HWY_INLINE void joinChains(LineSums<R> (&sums)[kChains]) {
  HWY_UNROLL(8)
  for (int c = 1; c < kChains; ++c) {
    HWY_UNROLL(8)
    for (int r = 0; r < R; ++r) {
      HWY_UNROLL(8)
      for (int p = 0; p < Vectors::kParts; ++p) {
        sums[0][r][p] = Vectors::add(sums[0][r][p], sums[c][r][p]);
      }
    }
  }
}

// R panels, the first of which begins some lanes behind `line`.
template <int R, int kChains, bool kStreams>
void sumLines(const uint8_t* line, int lanes, std::size_t groups, const int8_t* x, int32_t start,
              int32_t* to) {
  const LinesAhead<R * Vectors::kParts> ahead(groups, kRowCodeBlock);
  const std::size_t panelBytes = groups * kRowCodeBlock;
  const auto own = Vectors::lanesFrom(lanes);
  LineSums<R> sums[kChains];
  beginChains<R>(start, sums);
  Vectors::Inputs in = Vectors::inputs(x);
  addLanes<R>(line, panelBytes, own, in, sums[0]);
  addRest<R>(line, panelBytes, in, sums[0]);
  std::size_t g = 1;
  for (; (groups - g) % kChains != 0; ++g) {
    line += kRowCodeBlock;
    x += Vectors::kInputBytes;
    in = addGroup<R>(line, panelBytes, own, in, x, sums[0]);
  }
  for (; g < groups; g += kChains) {
    const std::size_t lineAhead = ahead.from(g);
    HWY_UNROLL(8)
    for (int c = 0; c < kChains; ++c) {
      line += kRowCodeBlock;
      x += Vectors::kInputBytes;
      if (kStreams) ahead.fetch(line + lineAhead);
      in = addGroup<R>(line, panelBytes, own, in, x, sums[c]);
    }
  }
  addLanes<R>(line + kRowCodeBlock, panelBytes, Vectors::lanesBefore(lanes), in, sums[0]);
  joinChains<R>(sums);
  for (int r = 0; r < R; ++r) {
    Vectors::storeTurned(sums[0][r], lanes, to + static_cast<std::size_t>(r) * kRowCodePanel);
  }
}

template <bool kStreams>
void sumLinePanels(const RowCodesView& codes, std::size_t first, std::size_t panels,
                   const ByteFrames& x, int32_t* sums) {
  constexpr int kChains = Vectors::kSeamChains;
  constexpr int kAtOnce = Vectors::kSeamPanels;
  const std::size_t past = reinterpret_cast<std::uintptr_t>(codes.codes) % kLineBytes;
  const auto lanes = static_cast<int>(past / sizeof(int32_t));
  const auto start = static_cast<int32_t>(0 - rowCodeBias(8) * static_cast<uint32_t>(x.sums[0]));
  const std::size_t groups = groupsOf(codes);
  const std::size_t panelBytes = groups * kRowCodeBlock;
  const uint8_t* line = codes.codes + first * panelBytes - past;
  std::size_t p = 0;
  for (; p + kAtOnce <= panels; p += kAtOnce) {
    sumLines<Vectors::kSeamPanels, kChains, kStreams>(line, lanes, groups, x.bytes, start, sums);
    line += kAtOnce * panelBytes;
    sums += kAtOnce * kRowCodePanel;
  }
  for (; p < panels; ++p) {
    sumLines<1, kAtOnce * kChains, kStreams>(line, lanes, groups, x.bytes, start, sums);
    line += panelBytes;
    sums += kRowCodePanel;
  }
}

// As dots() of IntegerTiles-inl.h, which does what is not for this.
void dotsAnywhere(const RowCodesView& codes, std::size_t first, std::size_t panels,
                  const ByteFrames& x, const CodesAhead& ahead, int32_t* sums) {
  const std::uintptr_t past = reinterpret_cast<std::uintptr_t>(codes.codes) % kLineBytes;
  if (kBuiltForSize || x.frames > 1 || codes.bits == 4 || groupsOf(codes) == 0 || past == 0 ||
      past % sizeof(int32_t) != 0) {
    return dots(codes, first, panels, x, ahead, sums);
  }
  const auto sum = ahead.stream ? sumLinePanels<true> : sumLinePanels<false>;
  sum(codes, first, panels, x, sums);
}
