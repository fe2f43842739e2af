// The store of tables and scalars: OTST_REGISTER_TABLE, OTST_REGISTER_SCALAR, OTST_SAVE_SCALAR_INTEGER,
// OTST_SAVE_SCALAR_REAL_WP, OTST_SAVE_SCALAR_STRING, OTST_SAVE_JSON, OTST_CLEAR, OST_ADD_TO_JPTR,
// OST_ADD_VALUE_TO_JPTR, OST_TO_JSTR.
#include "api/table_store.h"

#include "base/json.h"
#include "base/text.h"

namespace tolvan {

namespace {

// The index from 1 of the record of that name, 0 if there is none.
template <class Record>
std::int64_t index_of(const std::vector<std::unique_ptr<Record>>& records, std::string_view name)
{
  for (std::size_t k = 0; k < records.size(); ++k) {
    if (equal_nocase(rtrim(records[k]->name), rtrim(name))) return static_cast<std::int64_t>(k) + 1;
  }
  return 0;
}

template <class Record>
Record* find(const std::vector<std::unique_ptr<Record>>& records, std::string_view name)
{
  const std::int64_t index = index_of(records, name);
  return index > 0 ? records[static_cast<std::size_t>(index - 1)].get() : nullptr;
}

}  // namespace

OUTPUT_TABLE* OUTPUT_TABLE_STORE::find_table(std::string_view name)
{
  return find(tables, name);
}
const OUTPUT_TABLE* OUTPUT_TABLE_STORE::find_table(std::string_view name) const
{
  return find(tables, name);
}
OUTPUT_SCALAR* OUTPUT_TABLE_STORE::find_scalar(std::string_view name)
{
  return find(scalars, name);
}
const OUTPUT_SCALAR* OUTPUT_TABLE_STORE::find_scalar(std::string_view name) const
{
  return find(scalars, name);
}

std::int64_t OTST_REGISTER_TABLE(ERROR_HANDLER& eh, OUTPUT_TABLE_STORE& store, std::string_view name,
                                 TableType type)
{
  const Frame here{eh, __func__};
  OUTPUT_TABLE fresh;
  fresh.name = upper(rtrim(name));
  fresh.type = type;
  const std::int64_t known = index_of(store.tables, name);
  if (known > 0) {
    store.table(known) = std::move(fresh);
    return known;
  }
  store.tables.push_back(std::make_unique<OUTPUT_TABLE>(std::move(fresh)));
  return store.ntables();
}

std::int64_t OTST_REGISTER_SCALAR(ERROR_HANDLER& eh, OUTPUT_TABLE_STORE& store, std::string_view name)
{
  const Frame here{eh, __func__};
  OUTPUT_SCALAR fresh;
  fresh.name = upper(rtrim(name));
  const std::int64_t known = index_of(store.scalars, name);
  if (known > 0) {
    store.scalar(known) = std::move(fresh);
    return known;
  }
  store.scalars.push_back(std::make_unique<OUTPUT_SCALAR>(std::move(fresh)));
  return store.nscalars();
}

void OTST_SAVE_SCALAR_INTEGER(ERROR_HANDLER& eh, OUTPUT_TABLE_STORE& store, std::string_view name,
                              std::int64_t value)
{
  const Frame here{eh, __func__};
  OUTPUT_SCALAR& scalar = store.scalar(OTST_REGISTER_SCALAR(eh, store, name));
  scalar.ival = value;
  scalar.type = ColumnType::integer;
}

void OTST_SAVE_SCALAR_REAL_WP(ERROR_HANDLER& eh, OUTPUT_TABLE_STORE& store, std::string_view name,
                              double value)
{
  const Frame here{eh, __func__};
  OUTPUT_SCALAR& scalar = store.scalar(OTST_REGISTER_SCALAR(eh, store, name));
  scalar.rval = value;
  scalar.type = ColumnType::real;
}

void OTST_SAVE_SCALAR_STRING(ERROR_HANDLER& eh, OUTPUT_TABLE_STORE& store, std::string_view name,
                             std::string_view value)
{
  const Frame here{eh, __func__};
  OUTPUT_SCALAR& scalar = store.scalar(OTST_REGISTER_SCALAR(eh, store, name));
  scalar.sval = value;
  scalar.type = ColumnType::string;
}

void OTST_SAVE_JSON(ERROR_HANDLER& eh, OUTPUT_TABLE_STORE& store, std::string_view name,
                    std::string_view json)
{
  const Frame here{eh, __func__};
  JsonError fault;
  if (parse_json(json, fault) == nullptr) {
    eh.error(text("the JSON text to be saved as ", name, " is invalid: ", fault.message),
             Ecode::invalid_json);
    return;
  }
  OUTPUT_SCALAR& scalar = store.scalar(OTST_REGISTER_SCALAR(eh, store, name));
  scalar.sval = json;
  scalar.type = ColumnType::json;
}

void OTST_CLEAR(ERROR_HANDLER& eh, OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  store.tables.clear();
  store.scalars.clear();
}

bool OST_ADD_VALUE_TO_JPTR(ERROR_HANDLER& eh, const OUTPUT_SCALAR& scalar, JsonNode& parent)
{
  const Frame here{eh, __func__};
  switch (scalar.type) {
    case ColumnType::integer:
      parent.add_value("value", scalar.ival);
      return true;
    case ColumnType::real:
      parent.add_value("value", scalar.rval);
      return true;
    case ColumnType::string:
      parent.add_value("value", scalar.sval);
      return true;
    case ColumnType::json: {
      JsonError fault;
      auto value = parse_json(scalar.sval, fault);
      if (value == nullptr) {
        eh.internal(text("the JSON text of ", scalar.name, " is invalid: ", fault.message));
        return false;
      }
      value->name = "value";
      parent.add(std::move(value));
      return true;
    }
    default:
      eh.internal(text("unexpected scalar type: ", static_cast<std::int64_t>(scalar.type)));
      return false;
  }
}

bool OST_ADD_TO_JPTR(ERROR_HANDLER& eh, const OUTPUT_SCALAR& scalar, JsonNode& parent)
{
  const Frame here{eh, __func__};
  auto node = std::make_unique<JsonNode>(JsonType::object, scalar.name);
  node->add_value("type", std::string(column_type_name(scalar.type)));
  if (!OST_ADD_VALUE_TO_JPTR(eh, scalar, *node)) return false;
  parent.add(std::move(node));
  return true;
}

std::string OST_TO_JSTR(ERROR_HANDLER& eh, const OUTPUT_SCALAR& scalar)
{
  const Frame here{eh, __func__};
  JsonNode top(JsonType::object);
  return OST_ADD_TO_JPTR(eh, scalar, top) ? json_text(top) : std::string();
}

}  // namespace tolvan
