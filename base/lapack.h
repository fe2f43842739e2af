// The BLAS and LAPACK routines that the engine calls, with sizes of 64 bits.  Matrices are column-major.
//
// A matrix in memory never has an order beyond 32 bits, but sizes from outside must be tested with fits_blas
// before they come here: a wrapper that meets a size beyond 32 bits ends the process rather than compute
// nonsense.  The vector routines take any length.
#pragma once

#include <cstdint>
#include <limits>
#include <vector>

namespace tolvan {

/// Whether a matrix dimension can be handed to the BLAS.
constexpr bool fits_blas(std::int64_t n)
{
  return n >= 0 && n <= std::numeric_limits<std::int32_t>::max();
}

/// Keeps every BLAS call on the thread that makes it.  To be called before any other routine here is called
/// by several threads: results then do not depend on the number of threads.
void single_blas_thread();

// ---- vectors

double ddot(std::int64_t n, const double* x, std::int64_t incx, const double* y, std::int64_t incy);
void daxpy(std::int64_t n, double alpha, const double* x, std::int64_t incx, double* y, std::int64_t incy);
void dscal(std::int64_t n, double alpha, double* x, std::int64_t incx);
/// The place, counted from 1, of the first element of largest size; 0 if n is 0.
std::int64_t idamax(std::int64_t n, const double* x, std::int64_t incx);

// ---- matrices

/// C = alpha op(A) op(B) + beta C; op(A) is m x k, op(B) k x n.
void dgemm(char transa, char transb, std::int64_t m, std::int64_t n, std::int64_t k, double alpha,
           const double* a, std::int64_t lda, const double* b, std::int64_t ldb, double beta, double* c,
           std::int64_t ldc);
/// y = alpha op(A) x + beta y; A is m x n.
void dgemv(char trans, std::int64_t m, std::int64_t n, double alpha, const double* a, std::int64_t lda,
           const double* x, std::int64_t incx, double beta, double* y, std::int64_t incy);
/// The uplo triangle of C = alpha A A' + beta C (trans 'N', A is n x k) or alpha A'A + beta C (trans 'T', A
/// is k x n).
void dsyrk(char uplo, char trans, std::int64_t n, std::int64_t k, double alpha, const double* a,
           std::int64_t lda, double beta, double* c, std::int64_t ldc);
/// B = alpha op(A)^-1 B (side 'L') or alpha B op(A)^-1 (side 'R'), A triangular; B is m x n.
void dtrsm(char side, char uplo, char transa, char diag, std::int64_t m, std::int64_t n, double alpha,
           const double* a, std::int64_t lda, double* b, std::int64_t ldb);

// ---- factors, inverses, eigenvalues.  All give LAPACK's info: 0 done, k > 0 failed at k (a minor that is
// not positive, a zero on the diagonal, an eigenvalue that did not converge).

/// The Cholesky factor of a symmetric positive definite matrix in the uplo triangle.
std::int64_t dpotrf(char uplo, std::int64_t n, double* a, std::int64_t lda);
/// The inverse of a symmetric matrix from its Cholesky factor.
std::int64_t dpotri(char uplo, std::int64_t n, double* a, std::int64_t lda);
/// The inverse of a triangular matrix.
std::int64_t dtrtri(char uplo, char diag, std::int64_t n, double* a, std::int64_t lda);
/// U U' or L' L of a triangular matrix, in its place.
std::int64_t dlauum(char uplo, std::int64_t n, double* a, std::int64_t lda);
/// Eigenvalues w, ascending, of a symmetric matrix, and with jobz 'V' the eigenvectors in a.
std::int64_t dsyevd(char jobz, char uplo, std::int64_t n, double* a, std::int64_t lda, double* w,
                    std::vector<double>& work, std::vector<std::int32_t>& iwork);

}  // namespace tolvan
