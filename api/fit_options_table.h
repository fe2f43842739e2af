// The options of a request, one a line: how each is read, where it goes, its value when the request only
// names it, and how far its effect reaches.  Used by the reader and by its tests; nobody else should need it.
#pragma once

#include <array>
#include <string_view>

#include "api/fit_options.h"

namespace tolvan {

enum class OptionReader {
  integer,      // into an integer slot
  real,         // into a real slot
  flag,         // a logical
  flag_to_one,  // a logical that sets an integer slot to 1
  file,         // continue, final, tsv, msv
  em,           // emflag, pxem
  hold,
  tolerance,
  missing_values,
  y_missing_values,
  process_stage,
  outfolder,
  cinv,
  elsewhere,  // read by another routine, or by none
};

/// What naming the option does.
enum class OptionEffect {
  built,     // all of it stands
  harmless,  // steers something that is itself refused where it is not built, or nothing at all
  unbuilt,   // refused when it asks for something
};

struct OptionRow {
  std::string_view key;
  OptionReader reader;
  int slot;     // a Slot, RealSlot or Flag by the reader; -1 for none
  double bare;  // the value of an option named without a value
  OptionEffect effect;
};

constexpr OptionRow integer_option(std::string_view key, Slot slot, double bare, OptionEffect effect)
{
  return {key, OptionReader::integer, static_cast<int>(slot), bare, effect};
}
constexpr OptionRow real_option(std::string_view key, RealSlot slot, double bare, OptionEffect effect)
{
  return {key, OptionReader::real, static_cast<int>(slot), bare, effect};
}
constexpr OptionRow flag_option(std::string_view key, Flag slot, OptionEffect effect)
{
  return {key, OptionReader::flag, static_cast<int>(slot), 1.0, effect};
}
constexpr OptionRow one_option(std::string_view key, Slot slot, OptionEffect effect)
{
  return {key, OptionReader::flag_to_one, static_cast<int>(slot), 1.0, effect};
}
constexpr OptionRow own_option(std::string_view key, OptionReader reader, OptionEffect effect,
                               double bare = 1.0)
{
  return {key, reader, -1, bare, effect};
}

// clang-format off
inline constexpr auto option_table = [] {
  using enum OptionEffect;
  using enum OptionReader;
  return std::array{
      integer_option("aisingularities", Slot::aisingularities, -1, built),
      integer_option("ailoadings",      Slot::ailoadings,      -1, harmless),  // factor models
      integer_option("aipenalty",       Slot::aipenalty,       20, built),
      integer_option("asmv",            Slot::asmv,             1, built),
      integer_option("asuv",            Slot::asuv,             1, built),
      integer_option("bend",            Slot::bend,             1, harmless),  // unstructured matrices
      integer_option("blup",            Slot::blup,             2, built),
      integer_option("brief",           Slot::brief,            1, harmless),
      integer_option("ddf",             Slot::ddf,              6, unbuilt),
      integer_option("debug",           Slot::debug,         1023, built),
      integer_option("dense",           Slot::dense,            0, built),
      integer_option("df",              Slot::df,               0, harmless),
      integer_option("display",         Slot::display,         15, harmless),
      integer_option("extra",           Slot::extra,            1, built),
      integer_option("freegh",          Slot::freegh,           5, harmless),
      integer_option("gdense",          Slot::gdense,           1, built),
      integer_option("gkrige",          Slot::gkrige,           1, harmless),
      integer_option("glmm",            Slot::glmm,             2, harmless),  // families
      integer_option("idlimit",         Slot::idlimit,          4, built),
      integer_option("impute",          Slot::impute,          10, built),
      integer_option("imregress",       Slot::imregress,       50, harmless),
      integer_option("kadj",            Slot::kadj,             1, harmless),  // denominator df
      integer_option("kenward",         Slot::kenward,          3, harmless),  // denominator df
      integer_option("maxiterations",   Slot::maxiterations,    1, built),
      integer_option("nocheck",         Slot::nocheck,          1, harmless),
      integer_option("oscillate",       Slot::oscillate,        1, built),
      integer_option("ppoints",         Slot::ppoints,         21, harmless),  // predictions
      integer_option("pvsform",         Slot::pvsform,          1, harmless),
      integer_option("rename",          Slot::rename,           1, harmless),
      integer_option("report",          Slot::report,           1, harmless),
      integer_option("residuals",       Slot::residuals,        1, harmless),
      integer_option("s2limit",         Slot::s2limit,          1, built),
      integer_option("score",           Slot::score,            1, harmless),
      integer_option("screen",          Slot::screen,           1, unbuilt),
      integer_option("slnform",         Slot::slnform,          1, harmless),
      integer_option("slow",            Slot::slow,             1, built),
      integer_option("smx",             Slot::smx,              1, unbuilt),
      integer_option("summary",         Slot::summary,          1, harmless),
      integer_option("tabform",         Slot::tabform,          1, harmless),
      integer_option("txtform",         Slot::txtform,          1, harmless),
      integer_option("varscale",        Slot::varscale,         1, built),
      integer_option("vgsectors",       Slot::vgsectors,        6, harmless),
      integer_option("yhtform",         Slot::yhtform,          1, harmless),
      integer_option("yvar",            Slot::yvar,             1, harmless),
      integer_option("maximum_number_of_threads", Slot::maximum_number_of_threads, 16, built),
      integer_option("knots",           Slot::knots,           20, harmless),  // splines
      integer_option("isort",           Slot::isort,            1, built),
      integer_option("qpoint",          Slot::qpoint,           1, unbuilt),

      real_option("arlimit",   RealSlot::arlimit,   0.75, harmless),  // autoregressive structures
      real_option("adjust",    RealSlot::adjust,    0.0,  harmless),
      real_option("yss",       RealSlot::yss,       0.0,  harmless),
      real_option("aiv",       RealSlot::aiv,       1.0,  harmless),
      real_option("scale",     RealSlot::scale,     1.0,  harmless),
      real_option("step_size", RealSlot::step_size, 0.1,  built),

      flag_option("vrb",                 Flag::vrb,                 built),
      flag_option("design",              Flag::design,              built),
      flag_option("spatial",             Flag::spatial,             harmless),
      flag_option("twoway",              Flag::twoway,              harmless),
      flag_option("nodisplay",           Flag::nodisplay,           harmless),
      flag_option("nographs",            Flag::nographs,            harmless),
      flag_option("testmode",            Flag::testmode,            built),
      flag_option("onerun",              Flag::onerun,              harmless),
      flag_option("logfile",             Flag::logfile,             built),
      flag_option("drop_small_variance", Flag::drop_small_variance, built),
      flag_option("k4mxxail_tol_42",     Flag::k4mxxail_tol_42,     built),

      one_option("fcon",    Slot::fcon,    unbuilt),
      one_option("outlier", Slot::outlier, built),
      one_option("wvr",     Slot::wvr,     harmless),
      one_option("cmat",    Slot::cmat,    built),
      one_option("camat",   Slot::camat,   unbuilt),

      own_option("continue",         file,             built),
      own_option("final",            file,             built),
      own_option("tsv",              file,             built),
      own_option("msv",              file,             built),
      own_option("emflag",           em,               built),
      own_option("pxem",             em,               built, 2.0),
      own_option("hold",             hold,             built),
      own_option("tolerance",        tolerance,        built, 2.0),
      own_option("missing_values",   missing_values,   built),
      own_option("y_missing_values", y_missing_values, built),
      own_option("process_stage",    process_stage,    built),
      own_option("outfolder",        outfolder,        built),

      own_option("xml",               elsewhere, harmless),
      own_option("kcv",               elsewhere, built),
      own_option("rowfactor",         elsewhere, built),
      own_option("columnfactor",      elsewhere, built),
      own_option("cinv",              cinv,      built),
      own_option("tau",               elsewhere, harmless),
      own_option("section",           elsewhere, built),
      own_option("knot_points",       elsewhere, harmless),  // splines
      own_option("fown",              elsewhere, unbuilt),
      own_option("typeiii",           elsewhere, unbuilt),
      own_option("clean_up_sa_files", elsewhere, harmless),  // the object's own three, read before
      own_option("debug_level",       elsewhere, harmless),
      own_option("tmp_file_root",     elsewhere, harmless),
  };
}();
// clang-format on

/// True when no key stands twice.
constexpr bool keys_unique()
{
  for (std::size_t i = 0; i < option_table.size(); ++i) {
    for (std::size_t k = 0; k < i; ++k) {
      if (option_table[i].key == option_table[k].key) return false;
    }
  }
  return true;
}
static_assert(keys_unique());

/// The row of a key, compared exactly; null for an unknown one.
constexpr const OptionRow* find_option(std::string_view key)
{
  for (const OptionRow& row : option_table) {
    if (row.key == key) return &row;
  }
  return nullptr;
}

}  // namespace tolvan
