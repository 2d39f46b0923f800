// Directions of the static solver: the slope along a direction, the Hessian products of the BPR
// cost, the conjugate and bi-conjugate weights, and the line search.
#include <algorithm>
#include <cmath>

#include "static/static_solver.h"

namespace torvex {

namespace {

// Derivative of the BPR cost at f in one link-window, 0 where the 1440 cap binds. Only called
// for links with t0, alpha and beta above 0.
inline double cost_derivative(const StaticModel& m, int32_t l, double c, double f) {
    const double a = m.alpha[l], t0 = m.t0[l], b = m.beta[l];
    f = std::max(1e-6, f);
    const double f_cap = c * std::pow(1440.0 / (a * t0), 1.0 / b);
    if (f >= f_cap) return 0.0;
    return a * t0 * b * std::pow(f, b - 1.0) / std::pow(c, b);
}

inline bool curved(const StaticModel& m, int32_t l) {
    return m.t0[l] > 0.0f && m.alpha[l] > 0.0f && m.beta[l] > 0.0f;
}

// Differences from the current flows, as the solver's f32 arrays would hold them.
inline float diff(const std::vector<float>& v, const std::vector<float>& x, size_t i) {
    return v[i] - x[i];
}

ConjWeights from_combination(double w0, double w1, double w2) {
    ConjWeights w{w0, w1, w2, false};
    if (!std::isfinite(w0) || !std::isfinite(w1) || !std::isfinite(w2)) return w;
    w.valid = weights_acceptable(w0, w1, w2);
    return w;
}

}  // namespace

bool weights_acceptable(double w0, double w1, double w2) {
    return w0 > 0.0001 && w1 >= -1e-12 && w2 >= -1e-12 && std::fabs(w0 + w1 + w2 - 1.0) < 1e-6;
}

double direction_slope(const StaticModel& m, const std::vector<float>& flow,
                       const std::vector<float>& dir, double step) {
    const int32_t n = m.link_count, W = m.windows;
    double sum = 0.0;
#pragma omp parallel for schedule(static) reduction(+ : sum)
    for (int32_t l = 0; l < n; ++l) {
        if (!(m.t0[l] > 0.0f)) continue;
        for (int32_t w = 0; w < W; ++w) {
            const size_t i = static_cast<size_t>(l) * W + w;
            const double d = dir[i];
            if (d == 0.0) continue;
            const double f = std::max(0.0, static_cast<double>(flow[i]) + d * step);
            sum += d * static_link_cost(m, l, w, f);
        }
    }
    return sum;
}

double hessian_product(const StaticModel& m, const std::vector<float>& flow,
                       const std::vector<float>& d1, const std::vector<float>& d2) {
    const int32_t n = m.link_count, W = m.windows;
    double sum = 0.0;
#pragma omp parallel for schedule(static) reduction(+ : sum)
    for (int32_t l = 0; l < n; ++l) {
        if (!curved(m, l)) continue;
        for (int32_t w = 0; w < W; ++w) {
            const size_t i = static_cast<size_t>(l) * W + w;
            if (d1[i] == 0.0f || d2[i] == 0.0f) continue;
            const double h = cost_derivative(m, l, m.window_capacity[i], flow[i]);
            sum += h * static_cast<double>(d1[i]) * static_cast<double>(d2[i]);
        }
    }
    return sum;
}

ConjWeights conjugate_weights(const StaticModel& m, const std::vector<float>& xw,
                              const std::vector<float>& yw, const std::vector<float>& s1) {
    const int32_t n = m.link_count, W = m.windows;
    double bb = 0.0, ab = 0.0;  // H(B, B) and H(A, B), A = YW - XW, B = S1 - XW
#pragma omp parallel for schedule(static) reduction(+ : bb, ab)
    for (int32_t l = 0; l < n; ++l) {
        if (!curved(m, l)) continue;
        for (int32_t w = 0; w < W; ++w) {
            const size_t i = static_cast<size_t>(l) * W + w;
            const float b = diff(s1, xw, i);
            if (b == 0.0f) continue;
            const float a = diff(yw, xw, i);
            const double h = cost_derivative(m, l, m.window_capacity[i], xw[i]);
            bb += h * b * b;
            if (a != 0.0f) ab += h * a * b;
        }
    }
    const ConjWeights plain;
    if (!std::isfinite(bb) || std::fabs(bb) < 1e-14) return plain;
    const double t = -ab / bb;
    const double s = t + 1.0;
    if (!std::isfinite(s) || std::fabs(s) < 1e-12) return plain;
    return from_combination(1.0 / s, t / s, 0.0);
}

ConjWeights biconjugate_weights(const StaticModel& m, const std::vector<float>& xw,
                                const std::vector<float>& yw, const std::vector<float>& s1,
                                const std::vector<float>& s2) {
    const int32_t n = m.link_count, W = m.windows;
    // A = YW - XW, B = S1 - XW, C = S2 - XW.
    double bb = 0.0, cb = 0.0, cc = 0.0, ab = 0.0, ac = 0.0;
#pragma omp parallel for schedule(static) reduction(+ : bb, cb, cc, ab, ac)
    for (int32_t l = 0; l < n; ++l) {
        if (!curved(m, l)) continue;
        for (int32_t w = 0; w < W; ++w) {
            const size_t i = static_cast<size_t>(l) * W + w;
            const float a = diff(yw, xw, i), b = diff(s1, xw, i), c = diff(s2, xw, i);
            if (b == 0.0f && c == 0.0f) continue;
            const double h = cost_derivative(m, l, m.window_capacity[i], xw[i]);
            if (b != 0.0f) {
                bb += h * b * b;
                if (a != 0.0f) ab += h * a * b;
            }
            if (c != 0.0f) {
                cc += h * c * c;
                if (b != 0.0f) cb += h * c * b;
                if (a != 0.0f) ac += h * a * c;
            }
        }
    }
    const ConjWeights plain;
    const double det = cc * bb - cb * cb;
    if (!std::isfinite(det) || std::fabs(det) < 1e-14) return plain;
    const double p = (-ab * cc + ac * cb) / det;
    const double q = (-ac * bb + ab * cb) / det;
    const double s = p + 1.0 + q;
    if (!std::isfinite(s) || std::fabs(s) < 1e-12) return plain;
    return from_combination(1.0 / s, p / s, q / s);
}

double line_search(const StaticModel& m, const std::vector<float>& xw,
                   const std::vector<float>& dir, int max_halvings) {
    if (direction_slope(m, xw, dir, 0.0) >= 0.0) return 0.0;
    if (direction_slope(m, xw, dir, 1.0) <= 0.0) return 1.0;
    double lo = 0.0, hi = 1.0;
    for (int it = 0; it < max_halvings; ++it) {
        if (hi - lo <= 1e-6) break;
        const double mid = (lo + hi) * 0.5;
        if (direction_slope(m, xw, dir, mid) <= 0.0)
            lo = mid;
        else
            hi = mid;
    }
    return (lo + hi) * 0.5;
}

}  // namespace torvex
