// input.h -- what a person or a peer types, read once and checked: whole
// numbers within a range, seconds to the microsecond, fractions, and module
// names.  The scenario language, the host server's requests and the command
// lines of hyksim and lusctl read their numbers here, so that every one of
// them is refused the same way: no wrap, no truncation, no silent default,
// and an error that names what was being read.  Where it was read (the file
// and line, the request, the option) is the caller's to add.
#pragma once

#include <charconv>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>

#include <fmt/format.h>

namespace lusinput {

// A value as an error shows it: a hostile word may be a megabyte long, or
// hold control characters.
inline std::string Shown(std::string_view text) {
   constexpr size_t kShown = 40;
   std::string shown(text.substr(0, kShown));
   for (char &c : shown) {
      if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
   }
   return text.size() > kShown ? shown + "..." : shown;
}
inline std::string Quoted(std::string_view text) { return "'" + Shown(text) + "'"; }

// Parses `text` as a whole number from `min` to `max`: decimal, or
// hexadecimal after "0x"; a minus sign only where `min` is negative; no
// blanks, no plus sign, no fraction.  Returns true with *out, or false with
// *error: "bad value 'TEXT' for WHAT: a whole number from MIN to MAX is needed".
template <typename T>
bool ParseWhole(std::string_view text, std::string_view what, T min, T max, T *out, std::string *error) {
   static_assert(std::is_integral_v<T> && sizeof(T) <= 8, "whole numbers of at most 64 bits");
   auto refuse = [&] {
      *error = fmt::format("bad value {} for {}: a whole number from {} to {} is needed", Quoted(text), what,
                           min, max);
      return false;
   };
   std::string_view s = text;
   bool negative = false;
   if (!s.empty() && s[0] == '-' && min < 0) {
      negative = true;
      s.remove_prefix(1);
   }
   int base = 10;
   if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
      base = 16;
      s.remove_prefix(2);
   }
   if (s.empty() || s[0] == '-' || s[0] == '+') return refuse();
   uint64_t magnitude = 0;
   auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), magnitude, base);
   if (ec != std::errc() || end != s.data() + s.size()) return refuse();
   const __int128 value = negative ? -static_cast<__int128>(magnitude) : static_cast<__int128>(magnitude);
   if (value < static_cast<__int128>(min) || value > static_cast<__int128>(max)) return refuse();
   *out = static_cast<T>(value);
   return true;
}

// The whole range of T.
template <typename T>
bool ParseWhole(std::string_view text, std::string_view what, T *out, std::string *error) {
   return ParseWhole<T>(text, what, std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), out, error);
}

// Parses `text` as seconds, to the microsecond: digits, then optionally a
// point and at most six more ("1", "0.25", "121.000001"); no sign, no
// exponent.  Returns true with *us (microseconds, at most `maxUS`), or
// false with *error.  Exact: "0.1" is 100,000 us, never 99,999.
inline bool ParseSeconds(std::string_view text, std::string_view what, uint64_t maxUS, uint64_t *us,
                         std::string *error) {
   auto refuse = [&] {
      *error = fmt::format("bad value {} for {}: seconds from 0 to {}.{:06}, to the microsecond, are needed",
                           Quoted(text), what, maxUS / 1000000, maxUS % 1000000);
      return false;
   };
   const size_t point = text.find('.');
   const std::string_view whole = text.substr(0, point);
   const std::string_view fraction = point == std::string_view::npos ? std::string_view() : text.substr(point + 1);
   if (whole.empty() || (point != std::string_view::npos && fraction.empty()) || fraction.size() > 6) {
      return refuse();
   }
   for (std::string_view part : {whole, fraction}) {
      for (char c : part) {
         if (c < '0' || c > '9') return refuse();
      }
   }
   uint64_t seconds = 0;
   auto [end, ec] = std::from_chars(whole.data(), whole.data() + whole.size(), seconds, 10);
   if (ec != std::errc() || end != whole.data() + whole.size()) return refuse();
   uint64_t micro = 0;
   for (size_t i = 0; i < 6; i++) micro = micro * 10 + (i < fraction.size() ? static_cast<uint64_t>(fraction[i] - '0') : 0);
   if (seconds > maxUS / 1000000) return refuse();
   const uint64_t wholeUS = seconds * 1000000;   // at most maxUS: no wrap
   if (micro > maxUS - wholeUS) return refuse();
   *us = wholeUS + micro;
   return true;
}

// Parses `text` as a decimal fraction from `min` to `max` (a probability):
// digits with an optional point, no sign, no exponent, no "nan" or "inf".
inline bool ParseFraction(std::string_view text, std::string_view what, double min, double max, double *out,
                          std::string *error) {
   auto refuse = [&] {
      *error = fmt::format("bad value {} for {}: a number from {} to {} is needed", Quoted(text), what, min, max);
      return false;
   };
   if (text.empty() || text.size() > 64) return refuse();
   int digits = 0, points = 0;
   for (char c : text) {
      if (c == '.') {
         points++;
      } else if (c >= '0' && c <= '9') {
         digits++;
      } else {
         return refuse();
      }
   }
   if (digits == 0 || points > 1) return refuse();
   double value = 0;
   auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed);
   if (ec != std::errc() || end != text.data() + text.size() || !(value >= min && value <= max)) return refuse();
   *out = value;
   return true;
}

// A module's name, as the host's module service takes it ("lus-2000",
// "tarnq-dfw-1000"): 1 to 63 letters, digits, '-', '_' and '.', beginning
// with a letter or a digit, and no "..".  It names a file of the host's
// module directory and never a path: no '/' can reach the service.
inline bool ModuleName(std::string_view name, std::string *error) {
   auto refuse = [&](const char *why) {
      *error = fmt::format("bad module name {}: {}", Quoted(name), why);
      return false;
   };
   if (name.empty() || name.size() > 63) return refuse("1 to 63 characters are needed");
   for (char c : name) {
      const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                      c == '_' || c == '.';
      if (!ok) return refuse("a name is letters, digits, '-', '_' and '.', never a path");
   }
   const char first = name[0];
   if (first == '-' || first == '_' || first == '.') return refuse("a name begins with a letter or a digit");
   if (name.find("..") != std::string_view::npos) return refuse("a name has no '..'");
   return true;
}

}  // namespace lusinput
