#include "qv/chem.h"

namespace QVChem {

void QVAtom::GetCoords(float* xyz) const {
    for (int i = 0; i < 3; ++i) {
        xyz[i] = static_cast<float>(coords_[i]);
    }
}

void QVAtom::GetCoords(double* xyz) const {
    for (int i = 0; i < 3; ++i) {
        xyz[i] = coords_[i];
    }
}

void QVAtom::SetCoords(double x, double y, double z) {
    coords_[0] = x;
    coords_[1] = y;
    coords_[2] = z;
}

QVAtom& QVMol::AddAtom(unsigned int atomicNumber, double x, double y, double z,
                       double partialCharge) {
    atoms_.emplace_back(atomicNumber, x, y, z, partialCharge);
    return atoms_.back();
}

void QVMol::GetCoords(double* coords) const {
    for (const QVAtom& atom : atoms_) {
        atom.GetCoords(coords);
        coords += 3;
    }
}

QVTrans::QVTrans() : rotation_{1, 0, 0, 0, 1, 0, 0, 0, 1}, translation_{0, 0, 0} {}

QVTrans::QVTrans(const double* rotation, const double* translation) {
    for (int i = 0; i < 9; ++i) {
        rotation_[i] = rotation[i];
    }
    for (int i = 0; i < 3; ++i) {
        translation_[i] = translation[i];
    }
}

void QVTrans::Extract(double* rotation, double* translation, bool rotateFirst) const {
    for (int i = 0; i < 9; ++i) {
        rotation[i] = rotation_[i];
    }
    for (int i = 0; i < 3; ++i) {
        // R p + t = R (p + R^T t) for an orthogonal R.
        translation[i] = rotateFirst
                             ? translation_[i]
                             : rotation_[i] * translation_[0] + rotation_[3 + i] * translation_[1] +
                                   rotation_[6 + i] * translation_[2];
    }
}

void QVTrans::Apply(double* xyz, std::size_t count) const {
    for (double* point = xyz; point != xyz + 3 * count; point += 3) {
        const double p[3] = {point[0], point[1], point[2]};
        for (int i = 0; i < 3; ++i) {
            point[i] = rotation_[3 * i] * p[0] + rotation_[3 * i + 1] * p[1] +
                       rotation_[3 * i + 2] * p[2] + translation_[i];
        }
    }
}

QVTrans QVTrans::Then(const QVTrans& next) const {
    // next(this(p)) = Rn (R p + t) + tn.
    double rotation[9];
    double translation[3];
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            rotation[3 * i + j] = next.rotation_[3 * i] * rotation_[j] +
                                  next.rotation_[3 * i + 1] * rotation_[3 + j] +
                                  next.rotation_[3 * i + 2] * rotation_[6 + j];
        }
        translation[i] = next.rotation_[3 * i] * translation_[0] +
                         next.rotation_[3 * i + 1] * translation_[1] +
                         next.rotation_[3 * i + 2] * translation_[2] + next.translation_[i];
    }
    return QVTrans(rotation, translation);
}

QVTrans QVTrans::Inverse() const {
    // p = R^T (q - t).
    double rotation[9];
    double translation[3];
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            rotation[3 * i + j] = rotation_[3 * j + i];
        }
    }
    for (int i = 0; i < 3; ++i) {
        translation[i] =
            -(rotation[3 * i] * translation_[0] + rotation[3 * i + 1] * translation_[1] +
              rotation[3 * i + 2] * translation_[2]);
    }
    return QVTrans(rotation, translation);
}

}  // namespace QVChem
