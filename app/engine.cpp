#include "app/engine.h"

#include <algorithm>

#include "app/json_value.h"

namespace tolvan::driver {
namespace {

std::int32_t length(std::string_view text)
{
  return static_cast<std::int32_t>(text.size());
}

std::string optional_id(std::string_view id)
{
  return "OPTIONAL:" + std::string(id);
}

/// Asks for the size, then for the values.
template <class Value, class Read>
std::vector<Value> read_column(std::string_view id, std::int32_t& status, Read read)
{
  const std::string optional = optional_id(id);
  std::int32_t count = 0;
  read(optional, nullptr, &count);
  if (status > 0 || count <= 0) return {};
  std::vector<Value> values(static_cast<std::size_t>(count));
  read(optional, values.data(), &count);
  if (status > 0) values.clear();
  return values;
}

}  // namespace

Engine::Engine(std::string_view kind)
{
  ctlv_initialise(&status_, &handle_, kind.data(), length(kind));
}
Engine::~Engine()
{
  ctlv_cleanup(&handle_);
}

void Engine::input_info(std::string_view json)
{
  ctlv_input_info(&status_, &handle_, json.data(), length(json));
}

void Engine::input_real_2d(std::string_view name, const std::vector<double>& values, std::int32_t rows,
                           std::int32_t columns)
{
  ctlv_input_real_2d(&status_, &handle_, name.data(), length(name), values.data(), &rows, &columns);
}

void Engine::register_monitor(ctlv_monitor_function function)
{
  constexpr std::string_view kind = "MONITOR_FUNCTION";
  ctlv_register_function(&status_, &handle_, function, kind.data(), length(kind));
}

void Engine::process(std::string_view json)
{
  ctlv_process(&status_, &handle_, json.data(), length(json));
}

std::optional<std::string> Engine::json(std::string_view id)
{
  const std::string optional = optional_id(id);
  std::int32_t size = 0;
  ctlv_output_json(&status_, &handle_, optional.data(), length(optional), nullptr, &size);
  if (size <= 0) return {};
  std::string text(static_cast<std::size_t>(size), '\0');
  ctlv_output_json(&status_, &handle_, optional.data(), length(optional), text.data(), &size);
  if (status_ > 0 || size <= 0) return {};
  text.resize(static_cast<std::size_t>(size) - 1);  // without the NUL
  return text;
}

std::optional<double> Engine::real(std::string_view id)
{
  double value = TOLVAN_MISSING;
  ctlv_output_real_scalar(&status_, &handle_, id.data(), length(id), &value);
  return status_ > 0 ? std::nullopt : std::optional(value);
}

std::optional<std::int32_t> Engine::integer(std::string_view id)
{
  std::int32_t value = 0;
  ctlv_output_integer_scalar(&status_, &handle_, id.data(), length(id), &value);
  return status_ > 0 ? std::nullopt : std::optional(value);
}

std::vector<double> Engine::reals(std::string_view id)
{
  return read_column<double>(id, status_, [&](const std::string& name, double* values, std::int32_t* count) {
    ctlv_output_real(&status_, &handle_, name.data(), length(name), values, count);
  });
}

std::vector<std::int32_t> Engine::integers(std::string_view id)
{
  return read_column<std::int32_t>(
      id, status_, [&](const std::string& name, std::int32_t* values, std::int32_t* count) {
        ctlv_output_integer(&status_, &handle_, name.data(), length(name), values, count);
      });
}

std::vector<std::string> Engine::strings(const std::string& table, const std::string& column)
{
  // As JSON: the strings of ctlv_output_table_data are joined with blanks, and labels may hold some.
  const auto document = read_json(json(table + ":" + column).value_or(""));
  const Json* record = document && !document->items.empty() ? &document->items.front() : nullptr;
  const Json* values = record ? record->find("values") : nullptr;
  std::vector<std::string> out;
  if (values) {
    for (const Json& value : values->items) out.push_back(value.text);
  }
  return out;
}

std::string Engine::scalar_text(const std::string& id)
{
  const auto document = read_json(json(id).value_or(""));
  const Json* record = document && !document->items.empty() ? &document->items.front() : nullptr;
  const Json* value = record ? record->string_at("value") : nullptr;
  return value ? value->text : "";
}

std::string Engine::table_title(const std::string& table)
{
  const auto document = read_json(json(table + ":TITLES").value_or(""));
  const Json* titles = document ? document->find("titles") : nullptr;
  const Json* text = titles && !titles->items.empty() ? titles->items.front().string_at("text") : nullptr;
  return text ? text->text : "";
}

}  // namespace tolvan::driver
