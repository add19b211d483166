/// \file
/// Molecules and rigid transforms of the platform layer.
///
/// Units: coordinates in angstrom, partial charges in elementary charges. Thread safety: const
/// members may be called concurrently; anything that modifies an object needs exclusive access.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace QVChem {

/// One atom: element, position and partial charge.
class QVAtom {
public:
    QVAtom(unsigned int atomicNumber, double x, double y, double z, double partialCharge)
        : atomicNumber_(atomicNumber), coords_{x, y, z}, partialCharge_(partialCharge) {}

    unsigned int GetAtomicNumber() const { return atomicNumber_; }
    double GetPartialCharge() const { return partialCharge_; }
    void SetPartialCharge(double charge) { partialCharge_ = charge; }
    /// Writes x, y, z rounded to single precision into `xyz` (three floats).
    void GetCoords(float* xyz) const;
    /// Writes x, y, z into `xyz` (three doubles).
    void GetCoords(double* xyz) const;
    void SetCoords(double x, double y, double z);

private:
    unsigned int atomicNumber_;
    double coords_[3];
    double partialCharge_;
};

/// A molecule: a title and its atoms in input order. Bonds are not needed by the shape
/// computations and are not stored.
class QVMol {
public:
    using const_iterator = std::vector<QVAtom>::const_iterator;

    /// Appends an atom and returns it.
    QVAtom& AddAtom(unsigned int atomicNumber, double x, double y, double z, double partialCharge);

    /// The number of atoms.
    unsigned int NumAtoms() const { return static_cast<unsigned int>(atoms_.size()); }
    /// Writes x, y, z of every atom, atom after atom, into `coords` (3 * NumAtoms() doubles).
    void GetCoords(double* coords) const;

    /// Iteration over all atoms in order.
    const_iterator begin() const { return atoms_.begin(); }
    const_iterator end() const { return atoms_.end(); }
    const QVAtom& GetAtom(unsigned int index) const { return atoms_.at(index); }
    QVAtom& GetAtom(unsigned int index) { return atoms_.at(index); }

    const std::string& GetTitle() const { return title_; }
    void SetTitle(std::string title) { title_ = std::move(title); }

private:
    std::string title_;
    std::vector<QVAtom> atoms_;
};

/// A rigid transform p -> R p + t, with R a 3 x 3 rotation (row-major, acting on column
/// vectors) and t a translation: the point is rotated about the origin, then moved.
class QVTrans {
public:
    /// The identity.
    QVTrans();
    /// From 9 row-major rotation entries and 3 translation components.
    QVTrans(const double* rotation, const double* translation);

    /// Writes the transform into `rotation` (9 doubles, row-major) and `translation` (3).
    /// With `rotateFirst` true they are R and t of p -> R p + t (rotate about the origin, then
    /// translate); with false, t' = R^T t, so that p -> R (p + t') (translate, then rotate).
    void Extract(double* rotation, double* translation, bool rotateFirst) const;

    /// Applies the transform to a point in place (three doubles).
    void Apply(double* xyz) const { Apply(xyz, 1); }
    /// Applies the transform to `count` points in place, stored x, y, z one after another.
    void Apply(double* xyz, std::size_t count) const;
    /// This transform followed by `next`.
    QVTrans Then(const QVTrans& next) const;
    /// The inverse transform.
    QVTrans Inverse() const;

private:
    double rotation_[9];
    double translation_[3];
};

}  // namespace QVChem
