// The design functions by number, and what a factor row of each holds.
#pragma once

#include <cstdint>

namespace tolvan {

/// FACTOR_ROW::kind.  The numbers up to 41 are places of a list that goes outside; the comparisons follow, then our own.
///
/// In the table below f stands for a row with levels, x for one that gives a number (a covariate, or a factor by its numeric
/// labels, by its level numbers where a label is no number).  "source" is the row of f or x, which may be derived itself;
/// a copy (FACTOR_ROW::copy) has the kind of its source and repeats its design.
///
///   kind   call          arguments                    equations    design of a record
///   lin    lin(x)        values of the levels, if     1            x, or the value given for the level
///                        other than their labels
///   con    con(f)                                     n - 1        level l < n: 1 at l; level n: -1 at each
///   spl    spl(x,k)      k, then the knots if given   knots - 2    natural cubic spline through the knots
///   fac    fac(x)                                     distinct x   1 at the place of x, rising
///          fac(x,y)      second: row of y             pairs        1 at the place of (x,y), x slow
///   pol    pol(x,t)      t                            t + 1, |t|   orthogonal polynomials; of degree 1 to |t| for t < 0
///   uni    uni(f,k,n)    k, n (0: not given)          n or count   1 at its own level for each record with f at k
///   dev    dev(x)                                     distinct x   as fac(x)
///   joined and(f,t)      t                            none         t times f, onto the equations of the term before
///   leg    leg(x,t)      t                            t + 1, |t|   normalised Legendre polynomials on the range of x
///   sat    sat(f,l)      l                            none         a section of the residual; at(f,l) there too
///   mbf    by definition                              columns      the row that a file holds for the level of f
///   pow    pow(x,p,o)    p, o                         1            (x + o)^p
///   bis                  number of knots              knots        bisquare functions around equally spaced knots
///   vec    grp(g)        factor rows of the members   members      the members' values side by side; members that are
///          vect(g)                                    or levels    factors: 1 at the level of each, over common levels
///   sin, cos             period (0: 6.283185308)      1            sin, cos(6.283185308 x / period)
///   sqr, exp, inv, log, abs                           1            square root, exponential, 1 / x, natural logarithm, |x|
///   agt, alt, hs, le, lt, ge, gt, at                               1 where x > c, x < c, ... else 0; hs is ge
///                        c                            1            (at: x is c)
///   zero   zero(k)       k                            k            none
enum class DesignKind : std::int64_t {
  none = 0,  // a plain variable or a reserved factor
  lin = 1, con = 2, ide = 3, spl = 4, smz = 5, fac = 6, ma1 = 7, pol = 8, giv = 9, uni = 10,
  dev = 11, xfa = 12, joined = 13, leg = 14, lnk = 15, sat = 16, sin = 17, cos = 18, sqr = 19, exp = 20,
  inv = 21, log = 22, agt = 23, alt = 24, mbf = 25, zzz = 26, qtl = 27, grm = 28, out = 29, hel = 30,
  pow = 31, bis = 32, vec = 33, fam = 34, mdz = 35, mdf = 36, abs = 37, sat2 = 38, grr = 39, snp = 40, ref = 41,
  hs = 42, le = 43, lt = 44, ge = 45, gt = 46, at = 47, at_sign = 48,
  zero = 49,
};

/// True if one number or one level says all of such a row's design in a record.
constexpr bool is_scalar(DesignKind kind)
{
  switch (kind) {
    case DesignKind::none: case DesignKind::lin: case DesignKind::fac: case DesignKind::uni: case DesignKind::dev:
    case DesignKind::sin: case DesignKind::cos: case DesignKind::sqr: case DesignKind::exp: case DesignKind::inv:
    case DesignKind::log: case DesignKind::agt: case DesignKind::alt: case DesignKind::pow: case DesignKind::abs:
    case DesignKind::hs: case DesignKind::le: case DesignKind::lt: case DesignKind::ge: case DesignKind::gt:
    case DesignKind::at: case DesignKind::at_sign:
      return true;
    default:
      return false;
  }
}

}  // namespace tolvan
