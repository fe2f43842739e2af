// TLV_OBJECT: the object behind a handle for a model fit, what it is given and what it answers.
// Routines: ALLOCATE_TLV_OBJECT, TLV_MT_STORE_JSTR, TLV_CHECK, AOT_REGISTER_FUNCTION, AOT_GET_FULL_JSTR,
// AOT_GET_INFO_FROM_JSON, AOT_OUTPUT_JSON.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "api/api_options.h"
#include "api/communication.h"
#include "api/error_handler.h"
#include "api/string_array.h"
#include "api/table_store.h"
#include "base/json.h"
#include "data/dataset.h"

namespace tolvan {

struct TLV_OBJECT {
  TLV_OPTIONS options;
  ERROR_HANDLER errors;  // of the last call that left messages
  COMMUNICATION communication;
  STRING_ARRAY documents;  // in the order given; a process call consumes none
  USER_DATASET_STORE datasets;
  OUTPUT_TABLE_STORE tables;
  std::unique_ptr<JsonNode>
      request;  // of the last process call, merged and standardised; null before the first
};

/// ALLOCATE_TLV_OBJECT: makes an object with the default settings and empty stores.
std::unique_ptr<TLV_OBJECT> ALLOCATE_TLV_OBJECT(ERROR_HANDLER& eh);
/// TLV_MT_STORE_JSTR: appends a document to the object's.
void TLV_MT_STORE_JSTR(ERROR_HANDLER& eh, TLV_OBJECT& object, std::string_view json);
/// TLV_CHECK: checks what the object was given; there is no rule at present.
void TLV_CHECK(ERROR_HANDLER& eh, const TLV_OBJECT& object);
/// AOT_REGISTER_FUNCTION: takes a callback up.
void AOT_REGISTER_FUNCTION(ERROR_HANDLER& eh, TLV_OBJECT& object, MonitorFunction function,
                           std::string_view kind);

/// AOT_GET_FULL_JSTR: merges the documents of the datasets, the stored ones and a last text, which may be
/// empty, into one request.  Null after a failure.
///
/// The settings under `options` and `api_options` are merged one by one, a later value winning; descriptions
/// and statements of which there may be many are gathered under their key; any other key may come only once.
std::unique_ptr<JsonNode> AOT_GET_FULL_JSTR(ERROR_HANDLER& eh, const TLV_OBJECT& object,
                                            std::string_view last);

/// AOT_GET_INFO_FROM_JSON: the text of a request, or of what lies in it under the further parts of an output
/// ID.
std::string AOT_GET_INFO_FROM_JSON(ERROR_HANDLER& eh, JsonNode& request, const OUTPUT_ID& id);
/// AOT_OUTPUT_JSON: the document of an output ID; empty if there is none, with a message unless the ID is
/// optional.
std::string AOT_OUTPUT_JSON(ERROR_HANDLER& eh, const TLV_OBJECT& object, std::string_view id);
/// AOT_OUTPUT_JSON: the same for an object of another kind, which has its errors and its tables to show.
std::string AOT_OUTPUT_JSON(ERROR_HANDLER& eh, const ERROR_HANDLER& errors, const OUTPUT_TABLE_STORE& tables,
                            std::string_view id);

/// The object as text, for debugging.
std::string fit_object_text(const TLV_OBJECT& object);

}  // namespace tolvan
