// The order of reporting, and the scalars of the fit.  Routines: AIDRPT, STORE_FIT_SCALARS.
#include "reports/result_tables.h"

#include "base/numbers.h"
#include "reports/genomic_report.h"

namespace tolvan {

void STORE_FIT_SCALARS(ERROR_HANDLER& eh, const VARIANCE_MODEL& model, const FIT_STATE& fit,
                       OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  if (!fit.usable) return;
  // Not profiled, the one variance of a single residual section stands for it; several have none.
  double sigma2 = fit.sigma2;
  if (!model.profiled) {
    const auto own = static_cast<std::size_t>(model.residual_parameter);
    const bool single = model.residual_parameter >= 0;
    sigma2 = single && own < fit.sigma.size() ? fit.sigma[own] : 1.0;
  }
  OTST_SAVE_SCALAR_REAL_WP(eh, store, "SCALAR_LOGLIK", fit.logl);
  OTST_SAVE_SCALAR_REAL_WP(eh, store, "SCALAR_SIGMA2", sigma2);
  OTST_SAVE_SCALAR_INTEGER(eh, store, "SCALAR_DF", fit.df);
  if (fit.mode > 0) return;  // nothing was estimated that criteria could judge
  OTST_SAVE_SCALAR_REAL_WP(eh, store, "SCALAR_AIC", fit.aic);
  OTST_SAVE_SCALAR_INTEGER(eh, store, "SCALAR_AIC_NPARAM", fit.parameters_estimated);
  OTST_SAVE_SCALAR_REAL_WP(eh, store, "SCALAR_BIC", fit.bic);
  OTST_SAVE_SCALAR_REAL_WP(eh, store, "SCALAR_DETC", fit.log_det_c);
}

void AIDRPT(ERROR_HANDLER& eh, const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors,
            const TERM_TABLE& terms, const DESIGN_MTX& design, const VARIANCE_MODEL& model,
            const FIT_STATE& fit, const GENOMIC_RESULTS& genomic, OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  if (!fit.usable) return;
  CHUNK_OF_AIDRPT(eh, model, fit, store);
  if (eh.terminate()) return;
  MATPRT(eh, model, fit, store);
  if (eh.terminate()) return;
  ERROR_HANDLER own;  // a file of markers that can not be written takes no other table away
  if (genomic.models != nullptr && genomic.matrices != nullptr) {
    GBLUPEFFECTS(own, *genomic.models, *genomic.matrices, factors, terms, fit, store);
    if (!own.terminate()) GBLUPREPORT(own, *genomic.models, *genomic.matrices, factors, terms, fit, store);
  }
  TABLE_SLN(eh, variables, factors, terms, fit, store);
  if (eh.terminate()) return;
  AIDRST(eh, design, fit, store);
  if (eh.terminate()) return;
  STORE_FIELD_TABLES(eh, factors, design, model, store);
  if (!eh.terminate()) eh.EH_ADD_ALL(own);
}

}  // namespace tolvan
