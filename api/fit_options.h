// FIT_OPTIONS: every option of a request as a named slot.
// Routines: FIT_OPTIONS_DEFAULTS, UPDATE_OPTIONS_FROM_JPTR, REFUSE_UNBUILT_OPTIONS.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "api/error_handler.h"
#include "base/json.h"

namespace tolvan {

// clang-format off
/// Integer options, in the order of the option table; the name of a slot is the option's key.
enum class Slot : int {
  aisingularities, ailoadings, aipenalty, asmv, asuv, bend, blup, brief, ddf, debug, dense, df, display, extra, freegh,
  gdense, gkrige, glmm, idlimit, impute, imregress, kadj, kenward, maxiterations, nocheck, oscillate, ppoints, pvsform,
  rename, report, residuals, s2limit, score, screen, slnform, slow, smx, summary, tabform, txtform, varscale, vgsectors,
  yhtform, yvar, maximum_number_of_threads, knots,
  fcon, outlier, wvr, cmat, camat,          // flags that set an integer to 1
  missing_values, y_missing_values, process_stage, em_mode, em_value, aiv_integer, slot_25, slot_31,
  isort, qpoint,
  count_
};
enum class RealSlot : int { arlimit, adjust, yss, aiv, scale, step_size, count_ };
enum class Flag : int {
  vrb, design, spatial, twoway, nodisplay, nographs, testmode, onerun, logfile, drop_small_variance, k4mxxail_tol_42,
  count_
};
// clang-format on

/// A parameter file option (continue, final, tsv, msv): asked for, with a file name or a number.
struct FileOption {
  bool asked = false;
  std::string file = "*DEFAULT*";
  std::int64_t value = 0;
};

struct FIT_OPTIONS {
  std::array<std::int64_t, static_cast<std::size_t>(Slot::count_)> integers{};
  std::array<double, static_cast<std::size_t>(RealSlot::count_)> reals{};
  std::array<bool, static_cast<std::size_t>(Flag::count_)> flags{};
  std::array<bool, static_cast<std::size_t>(Slot::count_)> given{};  // the request named the option
  FileOption continue_from, final_file, tsv, msv;
  std::vector<std::int64_t> hold;
  std::vector<std::int64_t> tolerance;  // up to three values; empty: not given
  std::string outfolder;                // empty: not given
  bool inverse_table = false;           // cinv: the elements of C-inverse are wanted as a table
  std::vector<std::string> inverse_terms;  // those of these terms alone, "random": of all random terms; empty: all elements

  std::int64_t operator()(Slot s) const { return integers[static_cast<std::size_t>(s)]; }
  std::int64_t& operator()(Slot s) { return integers[static_cast<std::size_t>(s)]; }
  double operator()(RealSlot s) const { return reals[static_cast<std::size_t>(s)]; }
  double& operator()(RealSlot s) { return reals[static_cast<std::size_t>(s)]; }
  bool operator()(Flag s) const { return flags[static_cast<std::size_t>(s)]; }
  bool& operator()(Flag s) { return flags[static_cast<std::size_t>(s)]; }
};

/// FIT_OPTIONS_DEFAULTS: every slot at the engine's default, maximum_number_of_threads at the machine's
/// count.
FIT_OPTIONS FIT_OPTIONS_DEFAULTS();
/// UPDATE_OPTIONS_FROM_JPTR: reads the options object of a request over the defaults and runs the steps after
/// the loop.
void UPDATE_OPTIONS_FROM_JPTR(ERROR_HANDLER& eh, const JsonNode* options, FIT_OPTIONS& fit_options);
/// REFUSE_UNBUILT_OPTIONS: complains of every option whose effect is not built and which asks for something.
void REFUSE_UNBUILT_OPTIONS(ERROR_HANDLER& eh, const JsonNode* options);

}  // namespace tolvan
