// What a fit knows while it runs and what it hands to the reports.  Plain records; no routines.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tolvan {

/// One line of the trace.
struct ITERATION_ROW {
  std::int64_t iteration = 0;
  double logl = 0.0;             // relative to the base
  double sigma2 = 0.0;
  std::int64_t df = 0;
  double dev_df = -1e-37;
  std::int64_t restrained = 0;
  char flag = ' ';               // repeats of the pass; blank for none
  double seconds = 0.0;          // elapsed since the fit began
  double largest_change = 0.0;   // largest relative change of a parameter in the step
  double step = 1.0;
  std::vector<double> gammas;    // the values evaluated
};

/// How a fit ended.
enum class FitEnd { converged, not_converged, failed, aborted };

struct FIT_STATE {
  std::vector<ITERATION_ROW> trace;
  std::string status = " Warning: LogL not converged";
  FitEnd end = FitEnd::not_converged;
  std::int64_t fault = 0;
  std::int64_t mode = 0;              // of the option blup: above 0 the parameters were not estimated
  bool usable = false;                // an evaluation was completed: tables can be formed from it

  // Of the last completed evaluation.
  double logl = 0.0;                  // relative to the base
  double base = 0.0;
  double sigma2 = 1.0;                // profiled; 1 when the residual is not profiled
  std::int64_t df = 0;
  double log_det_c = 0.0;
  std::int64_t singular = 0, negative = 0;
  double tolerance = 1e-8;
  std::vector<double> evaluated;      // the parameter values of that evaluation, in table order
  std::vector<double> solution;       // model order, on the scale of the response as given
  std::vector<double> se;             // model order; 0 for a singular equation; missing mark where C-inverse was not formed
  std::vector<double> fitted;         // an analysis record each, response as given
  std::vector<double> residual;       // missing mark where the response was missing
  std::vector<double> hat;            // diagonal of W C^-1 W' R^-1; empty where it was not formed
  std::vector<double> rinv_residual;  // outlier statistics; empty where they were not formed.  R^-1 e, an analysis record each,
  std::vector<double> record_outlier; // and that over its standard deviation; missing mark where the response was missing
  std::vector<double> ginv_effect;    // G^-1 u, model order; missing mark for fixed effects
  std::vector<double> effect_outlier;
  std::vector<double> covariance;     // of the parameters on the reported (Sigma) scale, lower triangle by rows;
                                      // 0 for parameters that were not estimated
  std::vector<double> sigma;          // parameters on the Sigma scale, in table order
  std::vector<char> bound;            // letter of the column C of the components table
  std::int64_t parameters_estimated = 0;  // t of AIC and BIC
  double aic = 0.0, bic = 0.0;
  std::int64_t imputations = 0;       // rounds whose averages the results are; 0: none
  std::string first_singular_label;   // parameter of the first AI singularity, empty for none
};

}  // namespace tolvan
