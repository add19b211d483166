// The settings object of every expansion: six typed parameters in fixed slots.

#include <memory>

#include "hermite/hermite.h"
#include "hermite/internal.h"
#include "qv/error.h"

namespace QVHermiteMath {

using QVSystem::QVBoolParameter;
using QVSystem::QVDoubleParameter;
using QVSystem::QVUIntParameter;

namespace {

template <class Parameter, class Value>
std::unique_ptr<Parameter> MakeParameter(const char* name, Value value, const char* brief) {
    auto parameter = std::make_unique<Parameter>(name, value);
    parameter->SetBrief(brief);
    return parameter;
}

}  // namespace

QVHermiteOptions::QVHermiteOptions() : QVOptions("Hermite Options", 6, 0) {
    auto order = MakeParameter<QVUIntParameter>("-NPolyMax", 5u, "Resolution Parameter.");
    order->AddLegalRange("100", "0");
    SetParameter(NPolyMaxSlot, std::move(order));

    SetParameter(LambdaXSlot, MakeParameter<QVDoubleParameter>("-LambdaX", 1.0,
                                                               "Exponential X Width Coefficient."));
    SetParameter(LambdaYSlot, MakeParameter<QVDoubleParameter>("-LambdaY", 1.0,
                                                               "Exponential Y Width Coefficient."));
    SetParameter(LambdaZSlot, MakeParameter<QVDoubleParameter>("-LambdaZ", 1.0,
                                                               "Exponential Z Width Coefficient."));

    // Booleans take no range; registering one is a no-op kept so that every parameter is
    // built the same way.
    auto single = MakeParameter<QVBoolParameter>(
        "-UseSingleLambda", true, "When True all Lambdas will be equal to each other.");
    single->AddLegalRange("true", "false");
    SetParameter(UseSingleLambdaSlot, std::move(single));

    auto optimal = MakeParameter<QVBoolParameter>(
        "-UseOptimalLambdas", true,
        "When True the Optimal Lambdas will be found, otherwise user needs to specify.");
    optimal->AddLegalRange("true", "false");
    SetParameter(UseOptimalLambdasSlot, std::move(optimal));
}

QVHermiteOptions::~QVHermiteOptions() = default;

QVHermiteOptions* QVHermiteOptions::CreateCopy() const {
    return new QVHermiteOptions(*this);
}

// The slots are filled by the constructor; a caller who puts a parameter of another type into
// one has broken the object, which is reported as a fatal error rather than misread.
template <class Parameter>
const Parameter& QVHermiteOptions::Typed(Slot slot) const {
    const auto* parameter = dynamic_cast<const Parameter*>(GetParameter(slot));
    if (parameter == nullptr) {
        QVSystem::QVThrow.Fatal("Hermite Options: slot %u does not hold its parameter.",
                                static_cast<unsigned int>(slot));
    }
    return *parameter;
}

template <class Parameter>
Parameter& QVHermiteOptions::Typed(Slot slot) {
    return const_cast<Parameter&>(
        static_cast<const QVHermiteOptions*>(this)->Typed<Parameter>(slot));
}

namespace {

QVHermiteOptions::Slot LambdaSlot(unsigned int axis) {
    return static_cast<QVHermiteOptions::Slot>(QVHermiteOptions::LambdaXSlot + axis);
}

}  // namespace

unsigned int QVHermiteOptions::GetNPolyMax() const {
    unsigned int value = 0;
    Typed<QVUIntParameter>(NPolyMaxSlot).GetSetting(value, 0);
    return value;
}

double QVHermiteOptions::GetLambda(unsigned int axis) const {
    double value = 0.0;
    Typed<QVDoubleParameter>(LambdaSlot(axis)).GetSetting(value, 0);
    return value;
}

bool QVHermiteOptions::GetUseSingleLambda() const {
    bool value = false;
    Typed<QVBoolParameter>(UseSingleLambdaSlot).GetSetting(value, 0);
    return value;
}

bool QVHermiteOptions::GetUseOptimalLambdas() const {
    bool value = false;
    Typed<QVBoolParameter>(UseOptimalLambdasSlot).GetSetting(value, 0);
    return value;
}

bool QVHermiteOptions::SetNPolyMax(unsigned int order) {
    return Typed<QVUIntParameter>(NPolyMaxSlot).SetValue(order, 0);
}

bool QVHermiteOptions::SetLambda(unsigned int axis, double lambda) {
    return Typed<QVDoubleParameter>(LambdaSlot(axis)).SetValue(lambda, 0);
}

bool QVHermiteOptions::SetUseSingleLambda(bool value) {
    return Typed<QVBoolParameter>(UseSingleLambdaSlot).SetValue(value, 0);
}

bool QVHermiteOptions::SetUseOptimalLambdas(bool value) {
    return Typed<QVBoolParameter>(UseOptimalLambdasSlot).SetValue(value, 0);
}

QVHermiteOptions FixedLambdaOptions(unsigned int order, double lambdaX, double lambdaY,
                                    double lambdaZ, bool singleLambda) {
    QVHermiteOptions options;
    options.SetNPolyMax(order);
    options.SetLambda(0, lambdaX);
    options.SetLambda(1, lambdaY);
    options.SetLambda(2, lambdaZ);
    options.SetUseOptimalLambdas(false);
    options.SetUseSingleLambda(singleLambda);
    return options;
}

}  // namespace QVHermiteMath
