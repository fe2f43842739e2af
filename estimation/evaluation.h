// One complete evaluation of the restricted likelihood.  Routines: K4MITR and the steps it takes: K4MVSF, K4MXXS, K4MXXG,
// K4MXXAIL, K4MWVG, K4MWVA, K4MSCG, K4MSCR, K4MUPD.
//
// Scales.  Under gamma V = s2 H with s2 = y'Py / nu profiled out, P on the H scale; under sigma s2 = 1 throughout, so that
// one code serves both.
#pragma once

#include <cstdint>
#include <vector>

#include "api/error_handler.h"
#include "api/fit_options.h"
#include "data/design_matrix.h"
#include "estimation/control_slots.h"
#include "estimation/em_state.h"
#include "estimation/equations.h"
#include "estimation/update_parameters.h"
#include "model/term_table.h"
#include "reports/timing.h"
#include "varstruct/form_structures.h"
#include "varstruct/parameter_table.h"

namespace tolvan {

/// z'C^-1 z of the records and effects whose outlier statistics need it, -1 for all others.
struct OUTLIER_SQUARES {
  bool formed = false;
  std::vector<double> record;  // z = W'R^-1 e_r; a design row each
  std::vector<double> effect;  // z = G^-1 e_i; elimination order
};

/// What one evaluation found, at the parameter values `evaluated`.
struct EVALUATION {
  std::vector<double> evaluated;
  FORMED formed;
  ABSORBED absorbed;
  double log_det_c = 0.0, log_det_g = 0.0, log_det_r = 0.0;
  double quadratic = 0.0;                // y'Py
  double residual_square = 0.0;          // e'R^-1 e
  std::int64_t nu = 0;                   // records used less the rank of the fixed effects
  double sigma2 = 1.0;
  double logl = 0.0;                     // without base
  std::int64_t fault = 0;
  std::int64_t negative = 0;             // negative pivots that no negative variance accounts for
  std::vector<double> solution;          // elimination order, on the scale of the shifted response
  std::vector<double> random_part;       // G^-1 u, elimination order; 0 for fixed effects
  std::vector<double> residual;          // e = y - W b, an analysis record each
  std::vector<double> constant;          // the effects that stand for a constant of 1 when mu itself is singular; else empty
  std::vector<double> inverse_diagonal;  // of C-inverse, elimination order; empty where C-inverse was not formed
  bool iterated = false;                 // the equations were solved by iteration and the solutions have converged
  OUTLIER_SQUARES outliers;              // of a final pass that is asked for them
  INFORMATION information;               // before any damping
};

/// An accepted iteration, as the watch for oscillation keeps it.
struct KEPT_ROW {
  std::vector<double> values;
  double logl = 0.0;
  std::int64_t step = 0;  // thousandths of a full step that were taken from it
};

/// Where an update begins: the parameters and what the update keeps, before it, and what the evaluation found there.
struct UPDATE_START {
  std::vector<VARIANCE_PARAMETER> parameters;
  UPDATE_STATE update;
  INFORMATION information;  // followers folded into their masters
};

/// The working variables of the active parameters as alpha_i e + W a_i + f_i, e = y - W b being the residuals.
///
/// w_i = Hdot_i P y (Gilmour, Thompson & Cullis 1995).  For a parameter of G it is Z Gdot G^-1 u, which is W a_i with a_i formed
/// component by component: Gdot G^-1 is Rdot_c R_c^-1 along the component c that holds the parameter and the identity along the
/// others.  For the profiled residual scale it is y less its fixed part, e + Z u; for a variance v of the whole residual e / v;
/// for any other parameter of R it is f_i = Rdot R^-1 e within its section.  Since W'R^-1 e is G^-1 u in the equations of random
/// terms and zero in the others, only the f_i need passes over the data.
struct WORKING_VARIABLES {
  std::vector<double> alpha;          // one an active parameter
  std::vector<double> a;              // n by active, elimination order
  std::vector<std::uint8_t> has_a;    // one an active parameter: whether its a is not all zero
  struct DATA_BLOCK {                 // the f_i of one section, zero outside it
    std::int64_t first = 0;           // row of the design
    std::size_t records = 0;
    std::vector<std::int64_t> parameter;  // positions among the active ones
    std::vector<double> f;            // records by parameters
  };
  std::vector<DATA_BLOCK> data;
  std::vector<double> tile;             // scratch of K4MWVA
};

/// What of the fixed effects the design itself cannot tell apart; known once a fit, where the residual variance matrix is no scaled
/// identity.
struct ALIASED {
  bool known = false;
  std::int64_t count = 0;              // of fixed effects
  std::vector<std::uint8_t> left_out;  // by elimination position: those that an absorption left out, when there were as many
};

/// What evaluations share with the fit driver.
struct FIT_WORK {
  AIOPT aiopt;
  MIXED_EQUATIONS equations;
  UPDATE_STATE update;
  EM_STATE em;
  std::vector<VARIANCE_PARAMETER> saved;  // the parameters of the last accepted evaluation
  bool has_saved = false;
  std::vector<KEPT_ROW> history;          // the last accepted evaluations; kept when oscillation is watched for
  UPDATE_START latest;                    // of the last evaluation
  UPDATE_START best;                      // of the accepted evaluation with the best LogL
  double best_logl = -1e62;               // over accepted evaluations, without base
  double previous_logl = 0.0;
  double tolerance = 1e-8;                // t0 of the singularity rule, tightened once at most
  bool default_tolerance = true;
  ALIASED aliased;
  CANCEL cancel;
  std::vector<double> inverse;            // C-inverse on the pattern of C; as `working`, kept for its room alone
  WORKING_VARIABLES working;
};

/// The unchanging inputs of a fit.
struct FIT_MODEL {
  const FIT_OPTIONS& options;
  const VARIABLE_TABLE& variables;
  const FACTOR_TABLE& factors;
  const TERM_TABLE& terms;
  const DESIGN_MTX& design;
  TIMING_STORE& timing;
};

/// K4MITR: evaluates likelihood, score and information at the present parameters and updates them.
///
/// Ai::mode above 0 leaves earlier, with the parameters as they are: 1 has the solutions, but neither LogL nor C-inverse; 2 and 3
/// have both, but neither scores nor information; above 3 the equations are solved by iteration, with what 1 gives.
void K4MITR(ERROR_HANDLER& eh, const FIT_MODEL& in, std::int64_t iteration, VARIANCE_MODEL& model, FIT_WORK& work, EVALUATION& ev);

/// The log-likelihood at given parameters, the variances times the one factor that makes it highest: for comparing places far from
/// the optimum.  Messages are left aside, but for those of the first set-up of the equations, and the model stays as it is; what `ev` holds is of the given parameters afterwards.
struct LIKELIHOOD {
  bool formed = false;
  double logl = 0.0;
  double factor = 1.0;  // of all variances; 1 where one of them is not free, or the residual's is profiled
};
LIKELIHOOD likelihood_at(ERROR_HANDLER& eh, const FIT_MODEL& in, std::int64_t iteration, const std::vector<double>& values, VARIANCE_MODEL& model,
                         FIT_WORK& work, EVALUATION& ev);

/// Buffers of the products below, grown as needed.
struct EFFECTS_SCRATCH {
  std::vector<double> u, gu, work;
};

/// Adds by * G^-1 x to y, both over all equations in elimination order.
void add_random_part(const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& equations, const EVALUATION& ev,
                     double by, const double* x, double* y, EFFECTS_SCRATCH& scratch);

/// From the solutions: the residuals, G^-1 u and y'Py = e'R^-1 e + u'G^-1 u.  The absorbed corner y'R^-1 y - b'W'R^-1 y is the same
/// number, but with large effects it is a small difference of large ones; here an error of the solutions enters squared.
void follow_solutions(const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& equations, EVALUATION& ev);

/// The records less the equations in use that are fixed effects, also those among random ones.
std::int64_t degrees_of_freedom(const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& equations,
                                const EVALUATION& ev);

/// Takes the step from the best evaluation anew, with the damping that the update state now has: nothing is evaluated.
void step_from_best(ERROR_HANDLER& eh, std::int64_t iteration, double gain, VARIANCE_MODEL& model, FIT_WORK& work);

/// K4MWVG: forms the working variables, but for what K4MWVR adds.
void K4MWVG(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& equations,
            const EVALUATION& ev, WORKING_VARIABLES& working);
/// K4MWVR: the residual part of the same.
void K4MWVR(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& equations, const EVALUATION& ev,
            WORKING_VARIABLES& working);

/// K4MWVA: the average-information matrix 0.5 w_i'P w_j / s2 of all active parameters, by absorbing their working variables, whose
/// a it uses up, and the quadratic parts 0.5 w_i'P y / s2 of their scores.
void K4MWVA(ERROR_HANDLER& eh, const FIT_MODEL& in, const MIXED_EQUATIONS& equations, WORKING_VARIABLES& working, int threads,
            EVALUATION& ev);

/// K4MSCG: the scores of the parameters of random terms; the factor holds C-inverse.
///   inverse  C-inverse on the pattern of C, aligned with it
void K4MSCG(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, const MIXED_EQUATIONS& equations,
            const std::vector<double>& inverse, int threads, EVALUATION& ev);

/// K4MSCR: the scores of the parameters of the residual, but for a profiled variance.
void K4MSCR(ERROR_HANDLER& eh, const FIT_MODEL& in, const VARIANCE_MODEL& model, MIXED_EQUATIONS& equations,
            const std::vector<double>& inverse, int threads, EVALUATION& ev);

/// Halves of W C^-1 W' on the pattern of R^-1: x_r'C^-1 x_s is the sum of the elements (r, s) and (s, r); aligned with R^-1.
///   all  also for records of sections whose cross-products are kept, else 0 for these
void inverse_by_records(const MIXED_EQUATIONS& equations, const std::vector<double>& inverse, int threads, bool all,
                        std::vector<double>& halves);

}  // namespace tolvan
