#include "app/fit.h"

#include <chrono>
#include <cstdio>

#include "app/check.h"
#include "app/html_report.h"
#include "app/interrupt.h"
#include "app/progress.h"
#include "app/report.h"
#include "app/request.h"
#include "app/run_request.h"
#include "app/terminal.h"

namespace tolvan::driver {
namespace {

void narrate(const FitArguments& arguments, Talk least, const std::string& text)
{
  if (arguments.talk >= least) std::fputs(text.c_str(), stderr);
}

/// Whether the request asked for no more than the checks of itself and its data.
bool only_checked(Engine& engine, std::int32_t status)
{
  return status <= 0 && engine.scalar_text("SCALAR_FINAL_MESSAGE").find("whilst preprocessing") != std::string::npos;
}

Exit judge(Engine& engine, std::int32_t status, const Messages& messages, int interrupts)
{
  constexpr std::int32_t finished_by_monitor = -5;
  if (status > 0) return interrupts > 1 ? Exit::cancelled : messages.failure();
  const auto flag = engine.integer("SCALAR_CONVERGENCE_FLG");
  const std::string final_message = engine.scalar_text("SCALAR_FINAL_MESSAGE");
  const bool converged = final_message.find("LogL Converged") != std::string::npos;
  if (converged || !flag || *flag == 0) return Exit::converged;
  return interrupts > 0 || status == finished_by_monitor ? Exit::cancelled : Exit::not_converged;
}

}  // namespace

int refuse(const FitArguments& arguments, const Problem& problem)
{
  std::fprintf(stderr, "%s%s\n", styled(stderr, Style::red, "error: ").c_str(), problem.text.c_str());
  if (arguments.json && problem.exit != Exit::usage) {
    Messages messages;
    messages.add_error(problem.text);
    print_json_report(nullptr, 4, "", messages.document());
  }
  return static_cast<int>(problem.exit);
}

int fit(const FitArguments& arguments)
{
  Interrupt interrupt([&] {
    if (arguments.json) {
      Messages messages;
      messages.add_error("stopped by the user");
      print_json_report(nullptr, 5, "", messages.document());
    }
    return static_cast<int>(Exit::cancelled);
  });
  const auto start = std::chrono::steady_clock::now();
  Request request;
  if (const Problem problem = prepare_request(arguments, request)) return refuse(arguments, problem);
  narrate(arguments, Talk::normal, request.narration);
  for (const Matrix& m : request.matrices) {
    narrate(arguments, Talk::verbose,
            "dataset " + m.name + ": " + std::to_string(m.rows) + " records, " + std::to_string(m.columns) +
                " columns\n");
  }

  Messages messages;
  Engine engine("TLV");
  std::int32_t status = 0;
  {
    Progress progress(arguments.talk != Talk::quiet, interrupt);
    status = run_request(engine, request, "", &Progress::monitor, messages);
    interrupt.work_is_done();
    progress.finish();
  }
  messages.show(arguments.talk);
  const bool checked = only_checked(engine, status);
  const Exit exit = checked ? Exit::converged : judge(engine, status, messages, interrupt.count());
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.2f s in all\n", elapsed.count());
  narrate(arguments, Talk::verbose, seconds);

  if (arguments.json) {
    print_json_report(&engine, status, engine.scalar_text("SCALAR_FINAL_MESSAGE"), messages.document());
  } else if (checked) {
    print_check_report(engine, request.title, arguments.talk == Talk::verbose);
    std::puts("\nThe request and the data were checked; nothing was fitted, as process_stage is preprocess.");
  } else if (status <= 0 || !engine.integers("TABLE_TRACE:ITER").empty()) {
    print_report(engine, request.title);
  }
  if (!arguments.html.empty() && !checked && !engine.integers("TABLE_TRACE:ITER").empty()) {
    if (const Problem problem = write_html_report(engine, arguments, request, messages)) return refuse(FitArguments{}, problem);
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    return refuse(FitArguments{}, {Exit::out_of_resources, "unable to write the results"});
  }
  return static_cast<int>(exit);
}

}  // namespace tolvan::driver
