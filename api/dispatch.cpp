#include "api/dispatch.h"

#include <cstdio>

#include "pedigree/ainverse_object.h"
#include "api/fit_object.h"
#include "api/info_object.h"
#include "api/process_call.h"
#include "base/text.h"

namespace tolvan {
namespace {

constexpr std::size_t echo_width = 120;

/// The tables of an object, null if its kind has none.
const OUTPUT_TABLE_STORE* tables_of(const DECODED_HANDLE& handle)
{
  if (handle.tlv != nullptr) return &handle.tlv->tables;
  if (handle.ainv != nullptr) return &handle.ainv->tables;
  return nullptr;
}

/// L_DISPATCH: validates the handle and calls what fits its kind; a kind for which there is nothing is not
/// known here.
template <class ForFit, class ForAinverse, class ForInformation>
void L_DISPATCH(ERROR_HANDLER& eh, const DECODED_HANDLE& handle, ForFit&& fit, ForAinverse&& ainverse,
                ForInformation&& information)
{
  CHECK_OBJECT_POINTER(eh, handle);
  if (eh.terminate()) return;
  switch (handle.status) {
    case HandleStatus::tlv:
      fit(*handle.tlv);
      return;
    case HandleStatus::ainv:
      ainverse(*handle.ainv);
      return;
    case HandleStatus::info:
      information(*handle.info);
      return;
    default:
      eh.internal("Unknown handle");
  }
}

/// The answer of a kind that does not accept a verb.
auto not_accepted(ERROR_HANDLER& eh)
{
  return [&eh](auto&) { eh.internal("Unknown handle"); };
}

/// The messages of an input call that failed, where the object prints them.
void print_failure(const ERROR_HANDLER& eh, const TLV_OBJECT& object)
{
  if (eh.terminate() && object.options.prints(DebugPrint::einfo)) eh.EH_PRINT(true, true, true);
}

}  // namespace

void XXX_CHECK(ERROR_HANDLER& eh, const DECODED_HANDLE& handle)
{
  const Frame here{eh, __func__};
  L_DISPATCH(
      eh, handle, [&](TLV_OBJECT& object) { TLV_CHECK(eh, object); },
      [&](AINV_OBJECT& object) { AINV_CHECK(eh, object); }, not_accepted(eh));
}

void XXX_PROCESS(ERROR_HANDLER& eh, const DECODED_HANDLE& handle, std::string_view json)
{
  const Frame here{eh, __func__};
  L_DISPATCH(
      eh, handle,
      [&](TLV_OBJECT& object) {
        TLV_PROCESS(eh, object, json);
        if (object.options.prints(DebugPrint::einfo)) eh.EH_PRINT(true, true, true);
      },
      [&](AINV_OBJECT& object) { AINV_PROCESS(eh, object); }, not_accepted(eh));
}

void XXX_INPUT_INFO(ERROR_HANDLER& eh, const DECODED_HANDLE& handle, std::string_view json)
{
  const Frame here{eh, __func__};
  L_DISPATCH(
      eh, handle,
      [&](TLV_OBJECT& object) {
        AOT_CHECK_FOR_API_OPTIONS_FROM_JSTR(eh, json, object.options);
        if (!eh.terminate()) TLV_MT_STORE_JSTR(eh, object, json);
        print_failure(eh, object);
      },
      [&](AINV_OBJECT& object) { AINV_STORE_JSTR(eh, object, json); }, not_accepted(eh));
}

void XXX_INPUT_REAL_2D(ERROR_HANDLER& eh, const DECODED_HANDLE& handle, std::string_view name,
                       const double* values, std::int64_t rows, std::int64_t columns)
{
  const Frame here{eh, __func__};
  L_DISPATCH(
      eh, handle,
      [&](TLV_OBJECT& object) {
        if (values == nullptr || rows < 1 || columns < 1) {
          eh.error(text("the values of dataset ", name, " are not there, or have no rows or no columns"));
        } else {
          UDST_ADD(eh, object.datasets, name, values, rows, columns);
        }
        print_failure(eh, object);
      },
      [&](AINV_OBJECT&) {
        eh.internal(text(XXX_HANDLE_NAME(eh, handle.status), " does not take any 2D reall arrays"));  // sic
      },
      not_accepted(eh));
}

void XXX_REGISTER_FUNCTION(ERROR_HANDLER& eh, const DECODED_HANDLE& handle, MonitorFunction function,
                           std::string_view kind)
{
  const Frame here{eh, __func__};
  L_DISPATCH(
      eh, handle, [&](TLV_OBJECT& object) { AOT_REGISTER_FUNCTION(eh, object, function, kind); },
      [&](AINV_OBJECT&) {
        eh.error(text("it is not valid to register a function to a handle holding ",
                      XXX_HANDLE_NAME(eh, handle.status)));
      },
      not_accepted(eh));
}

std::string XXX_OUTPUT_JSON(ERROR_HANDLER& eh, const DECODED_HANDLE& handle, std::string_view id)
{
  const Frame here{eh, __func__};
  std::string json;
  L_DISPATCH(
      eh, handle, [&](TLV_OBJECT& object) { json = AOT_OUTPUT_JSON(eh, object, id); },
      [&](AINV_OBJECT& object) { json = AOT_OUTPUT_JSON(eh, object.errors, object.tables, id); },
      [&](INFO_OBJECT& object) { json = INFO_OUTPUT_JSON(eh, object, id); });
  return json;
}

void XXX_OUTPUT_TABLE_DATA(ERROR_HANDLER& eh, const DECODED_HANDLE& handle, std::string_view id,
                           const SQUASH_BUFFERS_I4B& buffers)
{
  const Frame here{eh, __func__};
  const auto squash = [&](auto&) { OTST_SQUASH_TABLE_DATA_I4B(eh, *tables_of(handle), id, buffers); };
  L_DISPATCH(eh, handle, squash, squash, not_accepted(eh));
}

void XXX_OUTPUT_SCALAR(ERROR_HANDLER& eh, const DECODED_HANDLE& handle, std::string_view id,
                       std::int32_t* value)
{
  const Frame here{eh, __func__};
  const auto read = [&](auto&) { OTST_OUTPUT_SCALAR(eh, *tables_of(handle), id, value); };
  L_DISPATCH(eh, handle, read, read, not_accepted(eh));
}

void XXX_OUTPUT_SCALAR(ERROR_HANDLER& eh, const DECODED_HANDLE& handle, std::string_view id, double* value)
{
  const Frame here{eh, __func__};
  const auto read = [&](auto&) { OTST_OUTPUT_SCALAR(eh, *tables_of(handle), id, value); };
  L_DISPATCH(eh, handle, read, read, not_accepted(eh));
}

void DUMP(ERROR_HANDLER& eh, const DECODED_HANDLE& handle)
{
  const Frame here{eh, __func__};
  std::string out;
  if (handle.errors() == nullptr) {
    out = "something went wrong with the pointers when trying to dump data\n";
  } else if (handle.tlv != nullptr) {
    out = fit_object_text(*handle.tlv);
  } else if (handle.ainv != nullptr) {
    out = text("AINV_OBJECT\ndocument: ", handle.ainv->document, "\n",
               "output: ", OTST_TO_JSTR(eh, handle.ainv->tables, TableValues::left_out), "\n",
               handle.ainv->errors.EH_PRINT_TEXT(true, true, true));
  } else {
    out = "handle to an unknown type supplied when trying to dump data\n";
  }
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
}

void echo_input(const DECODED_HANDLE& handle, std::string_view text)
{
  if (handle.tlv == nullptr || !handle.tlv->options.prints(DebugPrint::input_json)) return;
  std::string out;
  for (const std::string& line : split(text, '\n')) {
    for (std::size_t at = 0; at == 0 || at < line.size(); at += echo_width) {
      if (at > 0) out += " ...";
      out += line.substr(at, echo_width);
      if (at + echo_width < line.size()) out += "...";
      out += '\n';
    }
  }
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
}

}  // namespace tolvan
