#include "overlay/joint_overlap.h"

namespace hermite::overlay {

void JointOverlap::AddChannel(std::shared_ptr<const FastOverlap::Plan> plan,
                              std::vector<double> reference, std::vector<double> fit,
                              double weight) {
    channels_.push_back(
        std::make_unique<FastOverlap>(std::move(plan), std::move(reference), std::move(fit)));
    weights_.push_back(weight);
}

void JointOverlap::SetFitCoefficients(std::size_t channel,
                                      const std::vector<double>& coefficients) {
    channels_[channel]->SetFitCoefficients(coefficients);
}

void JointOverlap::TurnFit(std::size_t channel, const std::vector<double>& coefficients,
                           const ExpansionTurn& turn, const double* map) {
    std::vector<double> turned(coefficients.size());
    turn.Apply(map, coefficients.data(), turned.data());
    channels_[channel]->SetFitCoefficients(turned);
}

double JointOverlap::operator()(const double* x) {
    double value = 0.0;
    for (std::size_t c = 0; c < channels_.size(); ++c) {
        value += weights_[c] * (*channels_[c])(x);
    }
    return value;
}

double JointOverlap::operator()(const double* x, double* gradient) {
    double value = 0.0;
    double channelGradient[6];
    for (unsigned int i = 0; i < 6; ++i) {
        gradient[i] = 0.0;
    }
    for (std::size_t c = 0; c < channels_.size(); ++c) {
        value += weights_[c] * (*channels_[c])(x, channelGradient);
        for (unsigned int i = 0; i < 6; ++i) {
            gradient[i] += weights_[c] * channelGradient[i];
        }
    }
    return value;
}

}  // namespace hermite::overlay
