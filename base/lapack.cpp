#include "base/lapack.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

// The Fortran symbols; each character argument has its length, by value, at the end of the list.
extern "C" {
void openblas_set_num_threads(int threads);
double ddot_(const int* n, const double* x, const int* incx, const double* y, const int* incy);
void daxpy_(const int* n, const double* alpha, const double* x, const int* incx, double* y, const int* incy);
void dscal_(const int* n, const double* alpha, double* x, const int* incx);
int idamax_(const int* n, const double* x, const int* incx);
void dgemm_(const char* transa, const char* transb, const int* m, const int* n, const int* k,
            const double* alpha, const double* a, const int* lda, const double* b, const int* ldb,
            const double* beta, double* c, const int* ldc, std::size_t, std::size_t);
void dgemv_(const char* trans, const int* m, const int* n, const double* alpha, const double* a,
            const int* lda, const double* x, const int* incx, const double* beta, double* y, const int* incy,
            std::size_t);
void dsyrk_(const char* uplo, const char* trans, const int* n, const int* k, const double* alpha,
            const double* a, const int* lda, const double* beta, double* c, const int* ldc, std::size_t,
            std::size_t);
void dtrsm_(const char* side, const char* uplo, const char* transa, const char* diag, const int* m,
            const int* n, const double* alpha, const double* a, const int* lda, double* b, const int* ldb,
            std::size_t, std::size_t, std::size_t, std::size_t);
void dpotrf_(const char* uplo, const int* n, double* a, const int* lda, int* info, std::size_t);
void dpotri_(const char* uplo, const int* n, double* a, const int* lda, int* info, std::size_t);
void dtrtri_(const char* uplo, const char* diag, const int* n, double* a, const int* lda, int* info,
             std::size_t, std::size_t);
void dlauum_(const char* uplo, const int* n, double* a, const int* lda, int* info, std::size_t);
void dsyevd_(const char* jobz, const char* uplo, const int* n, double* a, const int* lda, double* w,
             double* work, const int* lwork, int* iwork, const int* liwork, int* info, std::size_t,
             std::size_t);
}

namespace tolvan {

namespace {

// Vectors longer than this are done in pieces.
constexpr std::int64_t piece = std::int64_t{1} << 30;

int narrow(std::int64_t n)
{
  if (n < std::numeric_limits<int>::min() || n > std::numeric_limits<int>::max()) {
    std::fputs("Internal Error: a dimension beyond 32 bits was handed to the BLAS\n", stderr);
    std::abort();
  }
  return static_cast<int>(n);
}

// Calls work(start, length) for the pieces of a vector of n elements.
template <class Work>
void in_pieces(std::int64_t n, Work&& work)
{
  for (std::int64_t start = 0; start < n; start += piece)
    work(start, static_cast<int>(std::min(piece, n - start)));
}

}  // namespace

void single_blas_thread()
{
  openblas_set_num_threads(1);
}

double ddot(std::int64_t n, const double* x, std::int64_t incx, const double* y, std::int64_t incy)
{
  const int ix = narrow(incx);
  const int iy = narrow(incy);
  double sum = 0.0;
  in_pieces(n, [&](std::int64_t start, int length) {
    sum += ddot_(&length, x + start * incx, &ix, y + start * incy, &iy);
  });
  return sum;
}

void daxpy(std::int64_t n, double alpha, const double* x, std::int64_t incx, double* y, std::int64_t incy)
{
  const int ix = narrow(incx);
  const int iy = narrow(incy);
  in_pieces(n, [&](std::int64_t start, int length) {
    daxpy_(&length, &alpha, x + start * incx, &ix, y + start * incy, &iy);
  });
}

void dscal(std::int64_t n, double alpha, double* x, std::int64_t incx)
{
  const int ix = narrow(incx);
  in_pieces(n, [&](std::int64_t start, int length) { dscal_(&length, &alpha, x + start * incx, &ix); });
}

std::int64_t idamax(std::int64_t n, const double* x, std::int64_t incx)
{
  const int ix = narrow(incx);
  std::int64_t best = 0;
  in_pieces(n, [&](std::int64_t start, int length) {
    const std::int64_t at = start + idamax_(&length, x + start * incx, &ix);
    if (best == 0 || std::abs(x[(at - 1) * incx]) > std::abs(x[(best - 1) * incx])) best = at;
  });
  return best;
}

void dgemm(char transa, char transb, std::int64_t m, std::int64_t n, std::int64_t k, double alpha,
           const double* a, std::int64_t lda, const double* b, std::int64_t ldb, double beta, double* c,
           std::int64_t ldc)
{
  const int im = narrow(m), in = narrow(n), ik = narrow(k);
  const int ia = narrow(lda), ib = narrow(ldb), ic = narrow(ldc);
  dgemm_(&transa, &transb, &im, &in, &ik, &alpha, a, &ia, b, &ib, &beta, c, &ic, 1, 1);
}

void dgemv(char trans, std::int64_t m, std::int64_t n, double alpha, const double* a, std::int64_t lda,
           const double* x, std::int64_t incx, double beta, double* y, std::int64_t incy)
{
  const int im = narrow(m), in = narrow(n), ia = narrow(lda), ix = narrow(incx), iy = narrow(incy);
  dgemv_(&trans, &im, &in, &alpha, a, &ia, x, &ix, &beta, y, &iy, 1);
}

void dsyrk(char uplo, char trans, std::int64_t n, std::int64_t k, double alpha, const double* a,
           std::int64_t lda, double beta, double* c, std::int64_t ldc)
{
  const int in = narrow(n), ik = narrow(k), ia = narrow(lda), ic = narrow(ldc);
  dsyrk_(&uplo, &trans, &in, &ik, &alpha, a, &ia, &beta, c, &ic, 1, 1);
}

void dtrsm(char side, char uplo, char transa, char diag, std::int64_t m, std::int64_t n, double alpha,
           const double* a, std::int64_t lda, double* b, std::int64_t ldb)
{
  const int im = narrow(m), in = narrow(n), ia = narrow(lda), ib = narrow(ldb);
  dtrsm_(&side, &uplo, &transa, &diag, &im, &in, &alpha, a, &ia, b, &ib, 1, 1, 1, 1);
}

std::int64_t dpotrf(char uplo, std::int64_t n, double* a, std::int64_t lda)
{
  const int in = narrow(n), ia = narrow(lda);
  int info = 0;
  dpotrf_(&uplo, &in, a, &ia, &info, 1);
  return info;
}

std::int64_t dpotri(char uplo, std::int64_t n, double* a, std::int64_t lda)
{
  const int in = narrow(n), ia = narrow(lda);
  int info = 0;
  dpotri_(&uplo, &in, a, &ia, &info, 1);
  return info;
}

std::int64_t dtrtri(char uplo, char diag, std::int64_t n, double* a, std::int64_t lda)
{
  const int in = narrow(n), ia = narrow(lda);
  int info = 0;
  dtrtri_(&uplo, &diag, &in, a, &ia, &info, 1, 1);
  return info;
}

std::int64_t dlauum(char uplo, std::int64_t n, double* a, std::int64_t lda)
{
  const int in = narrow(n), ia = narrow(lda);
  int info = 0;
  dlauum_(&uplo, &in, a, &ia, &info, 1);
  return info;
}

std::int64_t dsyevd(char jobz, char uplo, std::int64_t n, double* a, std::int64_t lda, double* w,
                    std::vector<double>& work, std::vector<std::int32_t>& iwork)
{
  const int in = narrow(n), ia = narrow(lda);
  int info = 0;
  double lwork = 0.0;
  int liwork = 0;
  const int ask = -1;
  dsyevd_(&jobz, &uplo, &in, a, &ia, w, &lwork, &ask, &liwork, &ask, &info, 1, 1);
  if (info != 0) return info;
  const int size = narrow(static_cast<std::int64_t>(lwork));
  work.resize(static_cast<std::size_t>(std::max(1, size)));
  iwork.resize(static_cast<std::size_t>(std::max(1, liwork)));
  dsyevd_(&jobz, &uplo, &in, a, &ia, w, work.data(), &size, iwork.data(), &liwork, &info, 1, 1);
  return info;
}

}  // namespace tolvan
