// TFlags<E>: a set of bits named by an enum whose enumerators are single bits
// (or masks of several bits).
//
// Unscoped enums combine into plain int with |, which loses the type; TFlags
// keeps it, so an operation taking TFlags<IIOStream::Flags> cannot be handed
// the bits of another enum by mistake. The raw bits (getBits / fromBits) are
// what travels on the wire; fromBits keeps bits no enumerator names, so a
// value from a newer peer passes through unchanged.
//
//   TFlags<IIOStream::Flags> flags{IIOStream::FlagTruncate,
//   IIOStream::FlagExclusive}; if (flags.has(IIOStream::FlagTruncate)) ...
#pragma once

#include <initializer_list>
#include <type_traits>

namespace zel {

template <class E>
class TFlags {
  static_assert(std::is_enum_v<E>, "TFlags is a set of enum bits");

 public:
  using Bits = std::make_unsigned_t<std::underlying_type_t<E>>;

  constexpr TFlags() noexcept = default;
  constexpr TFlags(E flag) noexcept : m_bits(static_cast<Bits>(flag)) {}
  constexpr TFlags(std::initializer_list<E> flags) noexcept {
    for (E flag : flags) m_bits |= static_cast<Bits>(flag);
  }

  static constexpr TFlags fromBits(Bits bits) noexcept {
    TFlags flags;
    flags.m_bits = bits;
    return flags;
  }
  constexpr Bits getBits() const noexcept { return m_bits; }

  constexpr bool isEmpty() const noexcept { return m_bits == 0; }
  // True when every bit of flag is set (for a mask: all of its bits).
  constexpr bool has(E flag) const noexcept {
    return (m_bits & static_cast<Bits>(flag)) == static_cast<Bits>(flag);
  }
  // True when at least one bit of other is set.
  constexpr bool hasAny(TFlags other) const noexcept { return (m_bits & other.m_bits) != 0; }

  constexpr TFlags& set(E flag, bool on = true) noexcept {
    if (on) {
      m_bits |= static_cast<Bits>(flag);
    } else {
      m_bits &= static_cast<Bits>(~static_cast<Bits>(flag));
    }
    return *this;
  }
  constexpr TFlags& clear(E flag) noexcept { return set(flag, false); }

  constexpr TFlags operator|(TFlags other) const noexcept {
    return fromBits(m_bits | other.m_bits);
  }
  constexpr TFlags operator&(TFlags other) const noexcept {
    return fromBits(m_bits & other.m_bits);
  }
  constexpr TFlags& operator|=(TFlags other) noexcept {
    m_bits |= other.m_bits;
    return *this;
  }
  constexpr TFlags& operator&=(TFlags other) noexcept {
    m_bits &= other.m_bits;
    return *this;
  }
  constexpr bool operator==(const TFlags&) const noexcept = default;

 private:
  Bits m_bits = 0;
};

}  // namespace zel
