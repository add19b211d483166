/// \file
/// The Gaussian record: one isotropic 3-D Gaussian, prefactor * exp(-exponent * |r - centre|^2).
#pragma once

namespace QVSystem {

/// One isotropic Gaussian density. All fields are single precision: prefactor (height at the
/// centre), exponent (in inverse squared length units) and the centre coordinates x, y, z
/// (length units, usually angstrom). The tag is a caller's label and does not enter any
/// computation. The record is polymorphic so that callers may attach data in subclasses; it is
/// copied by value.
class QVGaussian {
public:
    QVGaussian() = default;
    /// `centre` points to three floats x, y, z.
    QVGaussian(float prefactor, float exponent, const float* centre, unsigned int tag)
        : prefactor_(prefactor),
          exponent_(exponent),
          x_(centre[0]),
          y_(centre[1]),
          z_(centre[2]),
          tag_(tag) {}
    QVGaussian(const QVGaussian&) = default;
    QVGaussian& operator=(const QVGaussian&) = default;
    virtual ~QVGaussian() = default;

    float GetPrefactor() const { return prefactor_; }
    float GetExponent() const { return exponent_; }
    float GetX() const { return x_; }
    float GetY() const { return y_; }
    float GetZ() const { return z_; }
    unsigned int GetTag() const { return tag_; }

    void SetX(float x) { x_ = x; }
    void SetY(float y) { y_ = y; }
    void SetZ(float z) { z_ = z; }

private:
    float prefactor_ = 0.0f;
    float exponent_ = 0.0f;
    float x_ = 0.0f;
    float y_ = 0.0f;
    float z_ = 0.0f;
    unsigned int tag_ = 0;
};

}  // namespace QVSystem
