// The road of a request through the stages of a run, up to the finished parameter table.
#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "api/core_data.h"
#include "api/run_stages.h"
#include "model/request.h"
#include "support/checks.h"

namespace tolvan {

struct SetupRoad {
  ERROR_HANDLER eh;
  COMMUNICATION communication;
  USER_DATASET_STORE datasets;
  OUTPUT_TABLE_STORE tables;
  TLV_OPTIONS api_options;
  std::unique_ptr<JsonNode> request;
  std::unique_ptr<CORE_DATA> core;

  /// Runs the stages from the first to the one named.
  void run(std::string_view json, std::string_view last = "POST_CHUNK")
  {
    JsonError failure;
    request = parse_json(json, failure);
    ASSERT_TRUE(request != nullptr) << failure.message << " in " << json;
    bool has_model = false;
    API_STANDARDISE_AND_EXPAND_JSON(eh, communication, request.get(), has_model);
    core = std::make_unique<CORE_DATA>(*request, api_options, communication, datasets, tables);
    for (const Stage& stage : run_stages()) {
      if (eh.terminate()) return;
      stage.run(eh, *core);
      if (stage.name == last) return;
    }
  }
  const VARIANCE_MODEL& model() const { return core->variances; }
};

}  // namespace tolvan
