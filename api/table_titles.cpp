// What stands around the rows: OTT_ADD_TITLE, OTT_ADD_FOOTNOTE, OTT_ADD_SPANNING_LABEL, OTT_INSERT_TEXT.
#include <algorithm>

#include "api/table.h"
#include "base/text.h"

namespace tolvan {

void OTT_ADD_TITLE(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::string_view text, TitleType type)
{
  const Frame here{eh, __func__};
  table.titles.push_back({type, std::string(text)});
}

void OTT_ADD_FOOTNOTE(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::string_view text, TitleType type)
{
  const Frame here{eh, __func__};
  table.footnotes.push_back({type, std::string(text)});
}

void OTT_ADD_SPANNING_LABEL(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::int64_t from_col,
                            std::int64_t to_col, std::string_view label)
{
  const Frame here{eh, __func__};
  if (from_col < 1 || to_col < from_col) {
    eh.internal(text("a label can not span the columns ", from_col, " to ", to_col));
    return;
  }
  table.spanning_labels.push_back({from_col, to_col, std::string(label)});
}

void OTT_INSERT_TEXT(ERROR_HANDLER& eh, OUTPUT_TABLE& table, std::string_view text, std::int64_t lineno)
{
  const Frame here{eh, __func__};
  const std::int64_t before = lineno == 0 ? table.nrows + 1 : lineno;
  if (before < 1) {
    eh.internal(tolvan::text("a line can not be inserted before row ", before));
    return;
  }
  auto& inserts = table.line_inserts.inserts;
  auto at = std::lower_bound(inserts.begin(), inserts.end(), before,
                             [](const LINE_INSERT& insert, std::int64_t row) { return insert.lineno < row; });
  if (at == inserts.end() || at->lineno != before) at = inserts.insert(at, LINE_INSERT{before, {}});
  SAT_ADD_STRING(eh, at->text, text);
}

}  // namespace tolvan
