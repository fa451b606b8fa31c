// Conversions of a message text: the arguments a printf format consumes, in
// order, each with its length modifier and class. Read the same way at
// compile time (the checked entry alert<N>(...) and the option layer's drain
// tables check their arguments against a text) and at run time (a loaded
// message file may replace a built-in text only with one that consumes the
// same arguments). Everything here is constexpr and allocates nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

// One consumed argument. A '*' width or precision is an int argument of its
// own (class 'd', star set); "%%" and "%m" consume none.
struct msgconv {
  char len[3] = {}; // "", "h", "hh", "l", "ll", "L", "j", "z", "t"
  char cls = 0;     // 'd' signed, 'u' unsigned, 'c', 's', 'p', 'f' floating
  bool star = false;
  uint16_t from = 0, to = 0; // the conversion's text: fmt[from, to)

  constexpr bool sameArgument(const msgconv &o) const {
    return cls == o.cls && len[0] == o.len[0] && len[1] == o.len[1];
  }
};

constexpr int MSGCONV_MAX = 16;

struct msgconv_list {
  msgconv arg[MSGCONV_MAX] = {};
  int count = 0;
  // False for anything a message text may not hold: "%n", positional
  // arguments, unknown conversions, a '%' at the end, widths beyond what a
  // message line can show, more than MSGCONV_MAX arguments, a text longer
  // than the positions can count.
  bool ok = true;

  constexpr bool sameArguments(const msgconv_list &o) const {
    if (!ok || !o.ok || count != o.count)
      return false;
    for (int i = 0; i < count; ++i)
      if (!arg[i].sameArgument(o.arg[i]))
        return false;
    return true;
  }
};

namespace msgconv_detail {

constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }

constexpr bool add(msgconv_list &out, const msgconv &c) {
  if (out.count == MSGCONV_MAX)
    return out.ok = false;
  out.arg[out.count++] = c;
  return true;
}

// The width and the precision at fmt[i]: digits, or '*' taking an int
// argument of its own; false when the conversion cannot be used.
constexpr bool readWidths(std::string_view fmt, size_t &i, size_t from, msgconv_list &out) {
  constexpr long maxField = 512; // wider cannot show in a message anyway
  const size_t n = fmt.size();
  for (int part = 0; part < 2; ++part) {
    if (part == 1) {
      if (i >= n || fmt[i] != '.')
        break;
      ++i;
    }
    if (i < n && fmt[i] == '*') {
      msgconv star;
      star.cls = 'd';
      star.star = true;
      star.from = static_cast<uint16_t>(from);
      star.to = static_cast<uint16_t>(i + 1);
      if (!add(out, star))
        return false;
      ++i;
      continue;
    }
    long v = 0;
    while (i < n && isDigit(fmt[i])) {
      v = v * 10 + (fmt[i] - '0');
      if (v > maxField)
        return false;
      ++i;
    }
    if (i < n && fmt[i] == '$')
      return false;
  }
  return true;
}

// The length modifier and the conversion letter at fmt[i]; false for "%n"
// and unknown letters.
constexpr bool readKind(std::string_view fmt, size_t &i, msgconv &c) {
  const size_t n = fmt.size();
  const bool doubled = i + 1 < n && fmt[i] == fmt[i + 1];
  if (doubled && (fmt[i] == 'h' || fmt[i] == 'l')) {
    c.len[0] = c.len[1] = fmt[i];
    i += 2;
  } else if (i < n && (fmt[i] == 'h' || fmt[i] == 'l' || fmt[i] == 'L' || fmt[i] == 'j' ||
                       fmt[i] == 'z' || fmt[i] == 't')) {
    c.len[0] = fmt[i++];
  }
  if (i >= n)
    return false;
  switch (fmt[i]) {
  case 'd': case 'i': c.cls = 'd'; break;
  case 'u': case 'o': case 'x': case 'X': c.cls = 'u'; break;
  case 'c': c.cls = 'c'; break;
  case 's': c.cls = 's'; break;
  case 'p': c.cls = 'p'; break;
  case 'e': case 'E': case 'f': case 'F':
  case 'g': case 'G': case 'a': case 'A': c.cls = 'f'; break;
  default: return false;
  }
  return true;
}

} // namespace msgconv_detail

constexpr msgconv_list msgconv_read(std::string_view fmt) {
  using namespace msgconv_detail;
  msgconv_list out;
  const size_t n = fmt.size();
  if (n > UINT16_MAX) {
    out.ok = false;
    return out;
  }
  for (size_t i = 0; i < n; ++i) {
    if (fmt[i] != '%')
      continue;
    const size_t from = i++;
    if (i < n && (fmt[i] == '%' || fmt[i] == 'm')) // "%m" is replaced before formatting
      continue;
    while (i < n && (fmt[i] == '-' || fmt[i] == '+' || fmt[i] == ' ' || fmt[i] == '#' ||
                     fmt[i] == '0' || fmt[i] == '\''))
      ++i;
    msgconv c;
    c.from = static_cast<uint16_t>(from);
    if (!readWidths(fmt, i, from, out) || !readKind(fmt, i, c)) {
      out.ok = false;
      return out;
    }
    c.to = static_cast<uint16_t>(i + 1);
    if (!add(out, c))
      return out;
  }
  return out;
}

// True when printf, reading conversion c, reads an argument of type T as
// passed through "..." (after the default argument promotions) with the
// type c names. Signedness counts, except that a small unsigned type,
// promoted to int, may be printed by an unsigned conversion.
template <class T>
constexpr bool msgconv_accepts(const msgconv &c) {
  using U = std::remove_cv_t<std::decay_t<T>>;
  const std::string_view len(c.len, c.len[1] ? 2 : c.len[0] ? 1 : 0);
  if constexpr (std::is_same_v<U, bool> || std::is_enum_v<U>) {
    return false; // say which integer is meant
  } else if constexpr (std::is_integral_v<U>) {
    using P = decltype(+U{}); // the promoted type
    if (c.cls == 'c')
      return std::is_same_v<P, int> && len.empty();
    if (c.cls != 'd' && c.cls != 'u')
      return false;
    const bool sgn = c.cls == 'd';
    if (len.empty() || len == "h" || len == "hh")
      return sgn ? std::is_same_v<P, int>
                 : std::is_same_v<P, unsigned> || (std::is_same_v<P, int> && std::is_unsigned_v<U>);
    if (len == "l")
      return sgn ? std::is_same_v<P, long> : std::is_same_v<P, unsigned long>;
    if (len == "ll")
      return sgn ? std::is_same_v<P, long long> : std::is_same_v<P, unsigned long long>;
    if (len == "j")
      return sgn ? std::is_same_v<P, intmax_t> : std::is_same_v<P, uintmax_t>;
    if (len == "z")
      return sgn ? std::is_same_v<P, std::make_signed_t<size_t>> : std::is_same_v<P, size_t>;
    if (len == "t")
      return sgn ? std::is_same_v<P, ptrdiff_t>
                 : std::is_same_v<P, std::make_unsigned_t<ptrdiff_t>>;
    return false;
  } else if constexpr (std::is_floating_point_v<U>) {
    if (c.cls != 'f')
      return false;
    if (len == "L")
      return std::is_same_v<U, long double>;
    return len.empty() && !std::is_same_v<U, long double>;
  } else if constexpr (std::is_pointer_v<U>) {
    using E = std::remove_cv_t<std::remove_pointer_t<U>>;
    if (c.cls == 's')
      return std::is_same_v<E, char> && len.empty();
    return c.cls == 'p' && len.empty();
  } else {
    return false; // class objects (a std::string for "%s"), nullptr_t
  }
}

// True when the arguments Args, in order, are exactly what fmt consumes.
template <class... Args>
constexpr bool msgconv_fits(std::string_view fmt) {
  const msgconv_list l = msgconv_read(fmt);
  if (!l.ok || l.count != static_cast<int>(sizeof...(Args)))
    return false;
  int i = 0;
  return (msgconv_accepts<Args>(l.arg[i++]) && ...);
}
