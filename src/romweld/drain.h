// Error-list drain: how every operation turns the image library's error
// records into messages. An operation clears the list, calls the library,
// then drains the list through a table of its own with one row per code it
// expects there; each row says what the record becomes:
//
//   drain_error(code, text, fields...)    message 1600, the operation fails
//   drain_warning(code, text, fields...)  message 1601
//   drain_message<N, fields...>(code)     message N with the fields as its
//                                         arguments; N's kind decides
//   drain_budget(code, text, fields...)   message 1600 saying what would not
//                                         fit, then out of memory (296)
//   drain_internal(code)                  message 5 naming the code, the
//                                         tool quits: the operation cannot
//                                         meet this code
//
// The fields name the record's typed arguments and the operation's own
// values (drain_ctx). Rows are built at compile time and each is checked
// there: a text must consume exactly its fields, in order, with their types
// (an address is "%lX", a line "%u"), and a numbered message's built-in text
// must take its fields, which are texts. A code the table does not list is
// an internal error, as for drain_internal: no record is ever dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>

#include "common/alert.h"
#include "common/msgconv.h"
#include "image/hexdata.h"

// How a budget refusal ends: the limit it met, in the budget's own terms.
#define DRAIN_BUDGET_LIMIT \
  "more than the options of a run may add (2097152 rows: 512 MiB)"
static_assert(HEX_ROW_BUDGET == 2097152, "DRAIN_BUDGET_LIMIT states the budget");

struct romweld_arg;

enum drain_field : uint8_t {
  DF_NONE,
  DF_ADDR,   // the record's address (uint64_t: "%lX")
  DF_ADDR_H, // the same as text "<hex>h", as numbered messages show addresses ("%s")
  DF_ROWS,   // EBUDGET's count of rows, in the address field (uint64_t: "%lu")
  DF_NUM,    // the record's number: a line or a reason (uint32_t: "%u")
  DF_NUM2,   // the record's second number: a record type (uint32_t: "%u")
  DF_OWNER,  // text of the argument that placed the byte, from the record's note ("%s")
  DF_ARG,    // text of the argument being processed ("%s")
  DF_PATH,   // drain_ctx::path, the file the operation reads ("%s")
  DF_VALUE,  // drain_ctx::value, e.g. an offset in bytes (int: "%d")
  // Numbers as decimal text, for numbered messages ("%s").
  DF_NUM_D,  // the record's number (a line)
  DF_NUM2_D, // the record's second number
  DF_ADDR_D, // the record's address field as a count
  DF_REASON, // the record's number through drain_ctx::reason ("%s")
};

enum drain_how : uint8_t { DRAIN_ERROR, DRAIN_WARNING, DRAIN_MESSAGE, DRAIN_BUDGET, DRAIN_INTERNAL };

constexpr int DRAIN_MAX_FIELDS = 4;

struct drain_row {
  uint32_t code;
  drain_how how;
  const char *text;                         // DRAIN_ERROR, DRAIN_WARNING
  int (*message)(const char *const *args);  // DRAIN_MESSAGE
  drain_field fields[DRAIN_MAX_FIELDS];
};

// What the operation adds to the records' own fields.
struct drain_ctx {
  const romweld_arg *arg; // the argument being processed; messages name it
  const char *path = "";  // DF_PATH
  int value = 0;          // DF_VALUE
  const char *(*reason)(uint32_t) = nullptr; // DF_REASON: a reader's reason in words
};

// Walks the error list from the oldest record and issues each record's row.
// Records past the list's bound were counted, not kept: they get one
// note saying how many, an argument error when the last of them (the current
// error) would fail the operation, else a warning. True when nothing failed.
[[nodiscard]] bool drain_errors(std::span<const drain_row> table, const drain_ctx &ctx);

// A code that the step at hand cannot meet: message 5 naming it, fatal.
[[noreturn]] void drain_unexpected(uint32_t code);

// ---- building rows (compile time) -----------------------------------------

// Called only when a row does not hold together; being no constant
// expression, it makes the compiler refuse the table and name the reason.
void drain_fieldsDoNotMatchTheText();
void drain_numberedMessagesTakeTextFieldsOnly();

namespace drain_detail {

constexpr bool isText(drain_field f) {
  return f == DF_ADDR_H || f == DF_OWNER || f == DF_ARG || f == DF_PATH || f == DF_NUM_D ||
         f == DF_NUM2_D || f == DF_ADDR_D || f == DF_REASON;
}

constexpr bool fieldFits(drain_field f, const msgconv &c) {
  switch (f) {
  case DF_ADDR:
  case DF_ROWS:
    return msgconv_accepts<uint64_t>(c);
  case DF_NUM:
  case DF_NUM2:
    return msgconv_accepts<uint32_t>(c);
  case DF_VALUE:
    return msgconv_accepts<int>(c);
  default:
    return isText(f) && msgconv_accepts<const char *>(c);
  }
}

// Every '%' of the text is "%%" or starts one conversion that takes one
// field; no '*' widths, no "%m".
constexpr bool textFits(std::string_view text, const drain_field *f, int n) {
  const msgconv_list l = msgconv_read(text);
  if (!l.ok || l.count != n)
    return false;
  int percents = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%')
      continue;
    if (i + 1 < text.size() && text[i + 1] == '%')
      ++i;
    else
      ++percents;
  }
  if (percents != n)
    return false;
  for (int i = 0; i < n; ++i)
    if (l.arg[i].star || !fieldFits(f[i], l.arg[i]))
      return false;
  return true;
}

template <class... F>
consteval drain_row textRow(uint32_t code, drain_how how, const char *text, F... fields) {
  static_assert((std::is_same_v<F, drain_field> && ...), "fields are drain_field values");
  static_assert(sizeof...(F) <= DRAIN_MAX_FIELDS, "too many fields");
  drain_row r{code, how, text, nullptr, {fields...}};
  if (!textFits(text, r.fields, static_cast<int>(sizeof...(F))))
    drain_fieldsDoNotMatchTheText();
  return r;
}

template <unsigned N, size_t... I>
int issue(const char *const *args, std::index_sequence<I...>) {
  return alert<N>(args[I]...); // checked against message N's built-in text
}
template <unsigned N, size_t K>
int issueN(const char *const *args) {
  return issue<N>(args, std::make_index_sequence<K>{});
}

} // namespace drain_detail

template <class... F>
consteval drain_row drain_error(uint32_t code, const char *text, F... fields) {
  return drain_detail::textRow(code, DRAIN_ERROR, text, fields...);
}

template <class... F>
consteval drain_row drain_warning(uint32_t code, const char *text, F... fields) {
  return drain_detail::textRow(code, DRAIN_WARNING, text, fields...);
}

template <class... F>
consteval drain_row drain_budget(uint32_t code, const char *text, F... fields) {
  return drain_detail::textRow(code, DRAIN_BUDGET, text, fields...);
}

template <unsigned N, drain_field... F>
consteval drain_row drain_message(uint32_t code) {
  static_assert(sizeof...(F) <= DRAIN_MAX_FIELDS, "too many fields");
  if (!(drain_detail::isText(F) && ...))
    drain_numberedMessagesTakeTextFieldsOnly();
  return drain_row{code, DRAIN_MESSAGE, nullptr, &drain_detail::issueN<N, sizeof...(F)>, {F...}};
}

consteval drain_row drain_internal(uint32_t code) {
  return drain_row{code, DRAIN_INTERNAL, nullptr, nullptr, {}};
}
