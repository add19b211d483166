#include "qv/options.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <sstream>

#include "qv/error.h"

namespace QVSystem {

namespace {

std::string Trimmed(const std::string& text) {
    const auto isSpace = [](unsigned char c) { return std::isspace(c) != 0; };
    auto first = std::find_if_not(text.begin(), text.end(), isSpace);
    auto last = std::find_if_not(text.rbegin(), text.rend(), isSpace).base();
    return first < last ? std::string(first, last) : std::string();
}

std::string Lowered(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Text forms of the three value types.

template <>
bool QVTypedParameter<unsigned int>::Parse(const std::string& text, unsigned int& value) {
    const std::string t = Trimmed(text);
    // strtoul accepts a sign and wraps negative numbers; an unsigned setting takes digits only.
    if (t.empty() || !std::isdigit(static_cast<unsigned char>(t[0]))) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const unsigned long parsed = std::strtoul(t.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || parsed > std::numeric_limits<unsigned int>::max()) {
        return false;
    }
    value = static_cast<unsigned int>(parsed);
    return true;
}

template <>
bool QVTypedParameter<double>::Parse(const std::string& text, double& value) {
    const std::string t = Trimmed(text);
    if (t.empty()) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const double parsed = std::strtod(t.c_str(), &end);
    // Settings are finite numbers: "nan", "inf" and overflowing text are refused.
    if (errno == ERANGE || *end != '\0' || !std::isfinite(parsed)) {
        return false;
    }
    value = parsed;
    return true;
}

template <>
bool QVTypedParameter<bool>::Parse(const std::string& text, bool& value) {
    const std::string t = Lowered(Trimmed(text));
    if (t == "true" || t == "1" || t == "yes" || t == "on") {
        value = true;
        return true;
    }
    if (t == "false" || t == "0" || t == "no" || t == "off") {
        value = false;
        return true;
    }
    return false;
}

template <class T>
std::string QVTypedParameter<T>::ToText(const T& value) {
    std::ostringstream out;
    out.precision(17);
    out << value;
    return out.str();
}

template <>
std::string QVTypedParameter<bool>::ToText(const bool& value) {
    return value ? "true" : "false";
}

// ---------------------------------------------------------------------------------------------
// Typed parameters.

template <class T>
bool QVTypedParameter<T>::SetValue(const T& value, unsigned int index) {
    if (index >= kMaxIndex) {
        QVThrow.Warning("Index %u of option %s is not below %u.", index, GetName().c_str(),
                        kMaxIndex);
        return false;
    }
    // Written so that a NaN, which compares false with everything, is out of range too.
    if (hasRange_ && !(value >= minimum_ && value <= maximum_)) {
        QVThrow.Warning("Value %s of option %s is outside its legal range %s to %s.",
                        ToText(value).c_str(), GetName().c_str(), ToText(minimum_).c_str(),
                        ToText(maximum_).c_str());
        return false;
    }
    if (index >= values_.size()) {
        values_.resize(index + 1, default_);
    }
    values_[index] = value;
    MarkHasValue(index);
    return true;
}

template <class T>
bool QVTypedParameter<T>::SetValueFromText(const std::string& text, unsigned int index) {
    T value{};
    if (!Parse(text, value)) {
        QVThrow.Warning("Cannot read \"%s\" as a value of option %s.", text.c_str(),
                        GetName().c_str());
        return false;
    }
    return SetValue(value, index);
}

template <class T>
bool QVTypedParameter<T>::AddLegalRange(const std::string& first, const std::string& second) {
    T a{};
    T b{};
    if (!Parse(first, a) || !Parse(second, b)) {
        return false;
    }
    minimum_ = std::min(a, b);
    maximum_ = std::max(a, b);
    hasRange_ = true;
    return true;
}

template class QVTypedParameter<unsigned int>;
template class QVTypedParameter<double>;
template class QVTypedParameter<bool>;

std::unique_ptr<QVParameter> QVUIntParameter::Clone() const {
    return std::make_unique<QVUIntParameter>(*this);
}

std::unique_ptr<QVParameter> QVDoubleParameter::Clone() const {
    return std::make_unique<QVDoubleParameter>(*this);
}

std::unique_ptr<QVParameter> QVBoolParameter::Clone() const {
    return std::make_unique<QVBoolParameter>(*this);
}

bool QVBoolParameter::AddLegalRange(const std::string&, const std::string&) {
    return false;
}

// ---------------------------------------------------------------------------------------------
// Options.

QVOptions::QVOptions(std::string name, unsigned int slotCount, unsigned int groupCount)
    : name_(std::move(name)), slots_(slotCount) {
    if (groupCount != 0) {
        QVThrow.Fatal("Options \"%s\": nested option groups are not supported.", name_.c_str());
    }
}

QVOptions::QVOptions(const QVOptions& other) : name_(other.name_), slots_(other.slots_.size()) {
    for (std::size_t i = 0; i < slots_.size(); ++i) {
        if (other.slots_[i]) {
            slots_[i] = other.slots_[i]->Clone();
        }
    }
}

QVOptions& QVOptions::operator=(const QVOptions& other) {
    if (this != &other) {
        QVOptions copy(other);
        *this = std::move(copy);
    }
    return *this;
}

QVOptions::~QVOptions() = default;

QVOptions* QVOptions::CreateCopy() const {
    return new QVOptions(*this);
}

const std::unique_ptr<QVParameter>& QVOptions::CheckedSlot(unsigned int slot) const {
    if (slot >= slots_.size()) {
        QVThrow.Fatal("Options \"%s\" have %u slots; slot %u does not exist.", name_.c_str(),
                      GetNumSlots(), slot);
    }
    return slots_[slot];
}

void QVOptions::SetParameter(unsigned int slot, std::unique_ptr<QVParameter> parameter) {
    CheckedSlot(slot);
    slots_[slot] = std::move(parameter);
}

QVParameter* QVOptions::GetParameter(unsigned int slot) {
    return CheckedSlot(slot).get();
}

const QVParameter* QVOptions::GetParameter(unsigned int slot) const {
    return CheckedSlot(slot).get();
}

QVParameter* QVOptions::FindParameter(const std::string& name) {
    return const_cast<QVParameter*>(static_cast<const QVOptions*>(this)->FindParameter(name));
}

const QVParameter* QVOptions::FindParameter(const std::string& name) const {
    for (const auto& parameter : slots_) {
        if (parameter && parameter->GetName() == name) {
            return parameter.get();
        }
    }
    return nullptr;
}

bool QVOptions::Set(const std::string& name, const std::string& text) {
    QVParameter* parameter = FindParameter(name);
    if (parameter == nullptr) {
        QVThrow.Warning("Unknown option \"%s\" in %s.", name.c_str(), name_.c_str());
        return false;
    }
    return parameter->SetValueFromText(text, 0);
}

template <class T>
bool QVOptions::GetTyped(const std::string& name, T& value) const {
    const auto* typed = dynamic_cast<const QVTypedParameter<T>*>(FindParameter(name));
    return typed != nullptr && typed->GetSetting(value, 0);
}

bool QVOptions::Get(const std::string& name, unsigned int& value) const {
    return GetTyped(name, value);
}

bool QVOptions::Get(const std::string& name, double& value) const {
    return GetTyped(name, value);
}

bool QVOptions::Get(const std::string& name, bool& value) const {
    return GetTyped(name, value);
}

std::string QVOptions::Describe() const {
    std::ostringstream out;
    out << name_ << ":\n";
    for (const auto& parameter : slots_) {
        if (!parameter) {
            continue;
        }
        out << "  " << parameter->GetName() << " (default " << parameter->GetDefaultText() << ") "
            << parameter->GetBrief() << '\n';
    }
    return out.str();
}

}  // namespace QVSystem
