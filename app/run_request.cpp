#include "app/run_request.h"

namespace tolvan::driver {

std::int32_t run_request(Engine& engine, const Request& request, std::string_view last,
                         ctlv_monitor_function monitor, Messages& messages)
{
  std::int32_t status = engine.status();
  const auto failed = [&] {  // notes the call's status before the messages are read, which sets another
    status = engine.status();
    messages.collect(engine);
    return status > 0;
  };
  if (failed()) return status;
  if (monitor != nullptr) {
    engine.register_monitor(monitor);
    if (failed()) return status;
  }
  engine.input_info(request.document);
  if (failed()) {
    messages.add_place(request.name, request.document);
    return status;
  }
  for (const Matrix& m : request.matrices) {
    engine.input_real_2d(m.name, m.values, m.rows, m.columns);
    if (failed()) return status;
  }
  engine.process(last);
  failed();
  return status;
}

}  // namespace tolvan::driver
