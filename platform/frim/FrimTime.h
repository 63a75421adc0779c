// nTime: the foundation's durations (cDiff), points in time (cPoint) and
// rates (cFrequency). A cDiff counts nanoseconds; a cPoint is a reading of the
// monotonic clock, so differences of points never jump with the wall clock.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace nTime {

class cDiff {
 public:
  constexpr cDiff() = default;
  static constexpr cDiff gNanoseconds(std::int64_t n) { return cDiff(n); }
  static constexpr cDiff gMicroseconds(std::int64_t n) { return cDiff(n * 1000); }
  static constexpr cDiff gMilliseconds(std::int64_t n) { return cDiff(n * 1000000); }
  static constexpr cDiff gSeconds(std::int64_t n) { return cDiff(n * 1000000000); }

  constexpr std::int64_t fNanoseconds() const { return mNanoseconds; }
  constexpr std::chrono::nanoseconds fChrono() const { return std::chrono::nanoseconds(mNanoseconds); }

  friend constexpr cDiff operator+(cDiff a, cDiff b) { return cDiff(a.mNanoseconds + b.mNanoseconds); }
  friend constexpr cDiff operator-(cDiff a, cDiff b) { return cDiff(a.mNanoseconds - b.mNanoseconds); }
  friend constexpr cDiff operator*(cDiff a, std::int64_t k) { return cDiff(a.mNanoseconds * k); }
  friend constexpr auto operator<=>(cDiff, cDiff) = default;

 private:
  constexpr explicit cDiff(std::int64_t n) : mNanoseconds(n) {}
  std::int64_t mNanoseconds = 0;
};

// Tag type of "no duration" in an optional duration.
struct zDiffEmpty {};

class cPoint {
 public:
  constexpr cPoint() = default;
  static cPoint gNow() {
    return cPoint(std::chrono::duration_cast<std::chrono::nanoseconds>(
                      std::chrono::steady_clock::now().time_since_epoch())
                      .count());
  }
  constexpr std::int64_t fNanoseconds() const { return mNanoseconds; }
  friend constexpr cDiff operator-(cPoint a, cPoint b) {
    return cDiff::gNanoseconds(a.mNanoseconds - b.mNanoseconds);
  }
  friend constexpr cPoint operator+(cPoint a, cDiff d) { return cPoint(a.mNanoseconds + d.fNanoseconds()); }
  friend constexpr auto operator<=>(cPoint, cPoint) = default;

 private:
  constexpr explicit cPoint(std::int64_t n) : mNanoseconds(n) {}
  std::int64_t mNanoseconds = 0;
};

// Events per second.
class cFrequency {
 public:
  constexpr cFrequency() = default;
  constexpr explicit cFrequency(double perSecond) : mPerSecond(perSecond) {}
  static constexpr cFrequency gOf(std::int64_t count, cDiff over) {
    return over.fNanoseconds() > 0 ? cFrequency(double(count) * 1e9 / double(over.fNanoseconds()))
                                   : cFrequency();
  }
  constexpr double fPerSecond() const { return mPerSecond; }
  constexpr cDiff fPeriod() const {
    return mPerSecond > 0 ? cDiff::gNanoseconds(std::int64_t(1e9 / mPerSecond)) : cDiff();
  }

 private:
  double mPerSecond = 0;
};

// Whole milliseconds of a duration, truncated towards zero. Callers that need
// a 32-bit count take the low 32 bits of the result.
constexpr std::int64_t gMillisecondsInt(cDiff d) { return d.fNanoseconds() / 1000000; }

}  // namespace nTime

// An optional value whose empty state is named by a tag type, as in
// ecOptional<nTime::cDiff, nTime::zDiffEmpty>.
template <class T, class Empty>
class ecOptional {
 public:
  constexpr ecOptional() = default;
  constexpr ecOptional(Empty) {}                       // NOLINT
  constexpr ecOptional(T value) : mValue(value) {}     // NOLINT
  constexpr bool fHas() const { return mValue.has_value(); }
  constexpr T const& fGet() const { return *mValue; }
  constexpr explicit operator bool() const { return fHas(); }

 private:
  std::optional<T> mValue;
};
