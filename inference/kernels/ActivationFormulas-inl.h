// ActivationFormulas — the activation functions, each written once for single values and for
// vectors alike. Internal: not installed.
//
// `Ops` names the type of a value (Value), and gives the operations on it, each of which
// rounds once:
//   constant(c)                 the value c (in every lane)
//   fma(a, b, c)                a * b + c
//   add, sub, mul, div, abs     arithmetic
//   lessThan(a, b, t, f)        t where a < b, else f; f where either is NaN
//   atLeast(limit, a)           limit where a < limit, else a, NaN too
//   copySign(magnitude, sign)
//   powerOfTwo(n)               2^n for an integer n with -126 <= n <= 127
//   scaled(a, n)                a * 2^n; only where kScales is set
// Both sets of operations give the same bits wherever fma has one rounding.
//
// Compiled once for every instruction set.
#if defined(MLNN_ACTIVATION_FORMULAS_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef MLNN_ACTIVATION_FORMULAS_INL_H
#undef MLNN_ACTIVATION_FORMULAS_INL_H
#else
#define MLNN_ACTIVATION_FORMULAS_INL_H
#endif

#include "hwy/highway.h"
#include "layers/ActivationList.h"

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

// Every method is within 4 units in the last place of the true value, over all floats
// (ActivationTest measures it). NaN stays NaN.
template <typename Ops>
struct ActivationFormulas {
  using Value = typename Ops::Value;

  static constexpr float kLeakyReluSlope = 0.01f;
  static constexpr float kLog2E = 1.44269504088896341f;
  static constexpr float kLn2High = 0.693145751953125f;        // 15 bits: n * kLn2High is exact
  static constexpr float kLn2Low = 1.428606765330187045e-06f;  // ln 2 - kLn2High
  static constexpr float kRoundingShift = 12582912.0f;         // 1.5 * 2^23
  static constexpr float kExpUnderflow = -104.0f;              // exp is below half of 2^-149
  static constexpr float kSiluUnderflow = -125.0f;             // x * exp(x) is below it too
  static constexpr float kExpm1IsMinusOne = -20.0f;

  static HWY_INLINE Value c(float value) { return Ops::constant(value); }

  // exp(x) as mantissa * 2^n.
  struct Parts {
    Value mantissa;
    Value n;
  };

  // 2^n as a product: a denormal result has no single factor that a float holds. Multiplying by
  // `high` last rounds once.
  struct Factors {
    Value low;
    Value high;
  };

  // x - n * ln 2 with n the integer nearest to x / ln 2.
  struct Reduced {
    Value n;
    Value rest;
  };

  // REQUIRES: |x| < 2^20. Adding and subtracting the shift rounds to an integer.
  static HWY_INLINE Reduced reduce(Value x) {
    const Value n = Ops::sub(Ops::fma(x, c(kLog2E), c(kRoundingShift)), c(kRoundingShift));
    const Value high = Ops::fma(n, c(-kLn2High), x);
    return {n, Ops::fma(n, c(-kLn2Low), high)};
  }

  // (exp(r) - 1 - r) / r^2 for |r| <= ln(2) / 2: the polynomial with the smallest largest
  // relative error of exp(r) - 1.
  static HWY_INLINE Value expTail(Value r) {
    Value p = c(1.394599392e-03f);
    p = Ops::fma(p, r, c(8.366340984e-03f));
    p = Ops::fma(p, r, c(4.166629051e-02f));
    p = Ops::fma(p, r, c(1.66665455e-01f));
    return Ops::fma(p, r, c(0.5000000058f));
  }

  // exp(r) - 1 for |r| <= ln(2) / 2, with a small relative error.
  static HWY_INLINE Value expm1Core(Value r) { return Ops::fma(Ops::mul(r, r), expTail(r), r); }

  // REQUIRES: kSiluUnderflow <= x <= 0, or NaN.
  static HWY_INLINE Parts expParts(Value x) {
    const Reduced reduced = reduce(x);
    return {Ops::add(expm1Core(reduced.rest), c(1.0f)), reduced.n};
  }

  static HWY_INLINE Factors factorsOf(Value n) {
    const Value half = Ops::sub(Ops::fma(n, c(0.5f), c(kRoundingShift)), c(kRoundingShift));
    return {Ops::powerOfTwo(half), Ops::powerOfTwo(Ops::sub(n, half))};
  }

  static HWY_INLINE Value joined(const Parts& e) {
    if constexpr (Ops::kScales) {
      return Ops::scaled(e.mantissa, e.n);
    } else {
      const Factors factors = factorsOf(e.n);
      return Ops::mul(Ops::mul(e.mantissa, factors.low), factors.high);
    }
  }

  // exp of a value that is not positive; nothing can overflow.
  static HWY_INLINE Value expOfNegative(Value x) {
    return joined(expParts(Ops::atLeast(c(kExpUnderflow), x)));
  }

  // exp(x) - 1 for x <= 0.
  static HWY_INLINE Value expm1OfNegative(Value x) {
    const Reduced reduced = reduce(Ops::atLeast(c(kExpm1IsMinusOne), x));
    const Value scale = Ops::powerOfTwo(reduced.n);
    return Ops::fma(scale, expm1Core(reduced.rest), Ops::sub(scale, c(1.0f)));
  }

  // log(1 + e) for 0 <= e <= 1, from 2 artanh(s / 2) with s = 2 e / (2 + e).
  static HWY_INLINE Value log1p(Value e) {
    const Value s = Ops::div(Ops::add(e, e), Ops::add(e, c(2.0f)));
    const Value z = Ops::mul(s, s);
    Value p = c(5.455538423e-04f);
    p = Ops::fma(p, z, c(2.189074071e-03f));
    p = Ops::fma(p, z, c(1.250631539e-02f));
    p = Ops::fma(p, z, c(8.333305617e-02f));
    return Ops::fma(Ops::mul(s, z), p, s);
  }

  static HWY_INLINE Value negated(Value x) { return Ops::sub(c(0.0f), x); }

  static HWY_INLINE Value linear(Value x) { return x; }

  static HWY_INLINE Value sigmoid(Value x) {
    const Value e = expOfNegative(negated(Ops::abs(x)));
    const Value numerator = Ops::lessThan(x, c(0.0f), e, c(1.0f));
    return Ops::div(numerator, Ops::add(e, c(1.0f)));
  }

  static HWY_INLINE Value tanh(Value x) {
    const Value t = expm1OfNegative(Ops::mul(Ops::abs(x), c(-2.0f)));
    const Value magnitude = Ops::div(negated(t), Ops::add(t, c(2.0f)));
    return Ops::copySign(magnitude, x);
  }

  static HWY_INLINE Value relu(Value x) { return Ops::atLeast(c(0.0f), x); }

  static HWY_INLINE Value leakyRelu(Value x) {
    return Ops::lessThan(x, c(0.0f), Ops::mul(x, c(kLeakyReluSlope)), x);
  }

  static HWY_INLINE Value elu(Value x) {
    const Value negative = Ops::lessThan(c(0.0f), x, c(0.0f), x);
    return Ops::lessThan(x, c(0.0f), expm1OfNegative(negative), x);
  }

  static HWY_INLINE Value softplus(Value x) {
    return Ops::add(relu(x), log1p(expOfNegative(negated(Ops::abs(x)))));
  }

  // Far below zero sigmoid(x) is denormal where x * sigmoid(x) is not yet, so the last power
  // of two is applied after the product. At minus infinity the result is the limit -0.
  static HWY_INLINE Value silu(Value x) {
    const Parts e = expParts(Ops::atLeast(c(kSiluUnderflow), negated(Ops::abs(x))));
    const Factors factors = factorsOf(e.n);
    const Value denominator = Ops::add(joined(e), c(1.0f));
    const Value scaled =
        Ops::mul(Ops::atLeast(c(kSiluUnderflow), x), Ops::mul(e.mantissa, factors.low));
    const Value negative = Ops::mul(Ops::div(scaled, denominator), factors.high);
    return Ops::lessThan(x, c(0.0f), negative, Ops::div(x, denominator));
  }
};

// The function of an activation as a type, so that it is inlined into loops. `Formulas` has them
// all, as ActivationFormulas does. An activation that the list lacks has none, and does not
// compile.
template <typename Formulas, ActFn::ActFn fn>
struct FormulaOf;

#define MLNN_FORMULA(name, formula)                                         \
  template <typename Formulas>                                              \
  struct FormulaOf<Formulas, ActFn::name> {                                 \
    using Value = typename Formulas::Value;                                 \
    static HWY_INLINE Value apply(Value x) { return Formulas::formula(x); } \
  };
MLNN_FOR_EACH_ACTIVATION(MLNN_FORMULA)
#undef MLNN_FORMULA

// The same of the exponential that the softmax takes.
template <typename Formulas>
struct ExpOfNegativeBy {
  using Value = typename Formulas::Value;
  static HWY_INLINE Value apply(Value x) { return Formulas::expOfNegative(x); }
};

// fn(x) for one value.
template <typename Formulas>
float activatedBy(ActFn::ActFn fn, float x) {
  switch (fn) {
#define MLNN_CASE(name, formula) \
  case ActFn::name:              \
    return Formulas::formula(x);
    MLNN_FOR_EACH_ACTIVATION(MLNN_CASE)
#undef MLNN_CASE
  }
  return x;
}

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
