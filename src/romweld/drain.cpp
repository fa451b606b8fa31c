#include "romweld/drain.h"

#include <string>

#include "image/hex_errno.h"
#include "romweld/args.h"

namespace {

const drain_row *rowFor(std::span<const drain_row> table, uint32_t code) {
  for (const drain_row &row : table)
    if (row.code == code)
      return &row;
  return nullptr;
}

bool fails(const drain_row *row) {
  return !row || row->how == DRAIN_ERROR || row->how == DRAIN_BUDGET || row->how == DRAIN_INTERNAL;
}

std::string fieldText(drain_field f, const hex_error &e, const drain_ctx &c) {
  switch (f) {
  case DF_ADDR_H:
    return alert_format("%lXh", e.addr);
  case DF_OWNER:
    return e.note ? static_cast<const romweld_arg *>(e.note)->str : std::string();
  case DF_ARG:
    return c.arg->str;
  case DF_PATH:
    return c.path;
  case DF_NUM_D:
    return std::to_string(e.num);
  case DF_NUM2_D:
    return std::to_string(e.num2);
  case DF_ADDR_D:
    return std::to_string(e.addr);
  case DF_REASON:
    ROMWELD_ASSERT(c.reason != nullptr);
    return c.reason(e.num);
  default:
    ROMWELD_ASSERT(drain_detail::isText(f));
    return {};
  }
}

// One conversion of a row's text with its field, each with its own type;
// the table's compilation checked that the conversion takes that type.
std::string formatField(const std::string &conv, drain_field f, const hex_error &e,
                        const drain_ctx &c) {
  switch (f) {
  case DF_ADDR:
    return alert_format(conv.c_str(), e.addr);
  case DF_NUM:
    return alert_format(conv.c_str(), e.num);
  case DF_ROWS:
    return alert_format(conv.c_str(), e.addr);
  case DF_NUM2:
    return alert_format(conv.c_str(), e.num2);
  case DF_VALUE:
    return alert_format(conv.c_str(), c.value);
  default:
    return alert_format(conv.c_str(), fieldText(f, e, c).c_str());
  }
}

void appendLiteral(std::string &out, std::string_view text) {
  for (size_t i = 0; i < text.size(); ++i) {
    out += text[i];
    if (text[i] == '%') // "%%": the table check allows no other '%' here
      ++i;
  }
}

std::string describe(const drain_row &row, const hex_error &e, const drain_ctx &c) {
  const std::string_view text(row.text);
  const msgconv_list l = msgconv_read(text);
  std::string out;
  size_t at = 0;
  for (int i = 0; i < l.count; ++i) {
    appendLiteral(out, text.substr(at, l.arg[i].from - at));
    const std::string conv(text.substr(l.arg[i].from, l.arg[i].to - l.arg[i].from));
    out += formatField(conv, row.fields[i], e, c);
    at = l.arg[i].to;
  }
  appendLiteral(out, text.substr(at));
  return out;
}

// Issues one record's row; false when it fails the operation.
bool issue(const drain_row *row, const hex_error &e, const drain_ctx &c) {
  if (!row)
    drain_unexpected(e.code);
  switch (row->how) {
  case DRAIN_ERROR:
    arg_error(c.arg, "%s", describe(*row, e, c).c_str());
    return false;
  case DRAIN_WARNING:
    arg_warning(c.arg, "%s", describe(*row, e, c).c_str());
    return true;
  case DRAIN_MESSAGE: {
    std::string texts[DRAIN_MAX_FIELDS];
    const char *args[DRAIN_MAX_FIELDS] = {};
    for (int i = 0; i < DRAIN_MAX_FIELDS && row->fields[i] != DF_NONE; ++i) {
      texts[i] = fieldText(row->fields[i], e, c);
      args[i] = texts[i].c_str();
    }
    row->message(args);
    return true;
  }
  case DRAIN_BUDGET:
    arg_error(c.arg, "%s", describe(*row, e, c).c_str());
    alert_outOfMemory();
  case DRAIN_INTERNAL:
    drain_unexpected(e.code);
  }
  return false;
}

} // namespace

void drain_unexpected(uint32_t code) {
  alert<5>(alert_format("%s (code %u)", hex_strerror(code), code).c_str());
  ROMWELD_ASSERT(!"message 5 is fatal");
}

bool drain_errors(std::span<const drain_row> table, const drain_ctx &ctx) {
  ROMWELD_ASSERT(ctx.arg != nullptr && ctx.path != nullptr);
  bool ok = true;
  for (uint32_t i = 0; i < hex_errorCount(); ++i) {
    const hex_error e = hex_errorAt(i);
    ok = issue(rowFor(table, e.code), e, ctx) && ok;
  }
  if (const uint64_t dropped = hex_errorsDropped()) {
    if (fails(rowFor(table, hex_errno()))) {
      arg_error(ctx.arg, "%lu more problems were found but not listed", dropped);
      ok = false;
    } else {
      arg_warning(ctx.arg, "%lu more problems were found but not listed", dropped);
    }
  }
  return ok;
}
