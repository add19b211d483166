// A consumer of the library, shared by the packaging tests: expands one Gaussian and compares
// the self-overlap of the order-0 expansion with its closed form. Exits with 1 on a mismatch.

#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "hermite/hermite.h"
#include "qv/error.h"

int main() {
    // Errors of the library become exceptions instead of aborting the process.
    QVSystem::QVThrow.SetHandler(
        [](QVSystem::QVSeverity, const std::string& text) { throw std::runtime_error(text); });

    constexpr float kPrefactor = 2.7f;
    constexpr float kExponent = 0.811151803f;
    constexpr double kLambda = 0.56;
    constexpr double kPi = 3.14159265358979323846;
    const float centre[3] = {0.0f, 0.0f, 0.0f};
    const std::vector<QVSystem::QVGaussian> gaussians = {
        QVSystem::QVGaussian(kPrefactor, kExponent, centre, 0)};

    try {
        QVHermiteMath::QVHermiteOptions options;
        options.SetNPolyMax(0);
        for (unsigned int axis = 0; axis < 3; ++axis) {
            options.SetLambda(axis, kLambda);
        }
        const QVHermiteMath::QVGaussianToHermite transform(options, gaussians, 0);

        // For w exp(-a r^2) at the origin and order 0: S = w^2 lambda^3 pi^(3/2) /
        // (a + lambda^2 / 2)^3.
        const double w = kPrefactor, a = kExponent;
        const double expected = w * w * kLambda * kLambda * kLambda * std::pow(kPi, 1.5) /
                                std::pow(a + 0.5 * kLambda * kLambda, 3);
        const double actual = transform.GetSelfOverlap();
        if (!(std::abs(actual - expected) <= 1e-12 * expected)) {
            std::fprintf(stderr, "self-overlap %.17g, expected %.17g\n", actual, expected);
            return 1;
        }
        std::printf("self-overlap %.17g as expected\n", actual);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "error: %s\n", error.what());
        return 1;
    }
    return 0;
}
