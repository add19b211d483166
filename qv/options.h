/// \file
/// Named, typed settings: the option objects that every computation of the library reads.
///
/// An options object (`QVOptions`) owns a fixed number of slots, each holding one typed
/// parameter (`QVUIntParameter`, `QVDoubleParameter`, `QVBoolParameter`). A parameter has a
/// name with a leading dash ("-NPolyMax"), a default, a one-line brief text, an optional legal
/// range, and values stored per index together with a has-value flag per index. Reading a
/// parameter with `GetSetting` yields the value set at that index if there is one, else the
/// default. Values set by a caller are checked against the legal range; a rejected value is
/// reported through `QVThrow.Warning` and leaves the parameter as it was.
///
/// Thread safety: const members may be called concurrently; anything that sets a value needs
/// exclusive access to the object.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace QVSystem {

/// The type-independent part of a parameter: name, brief text and the per-index has-value state.
class QVParameter {
public:
    /// Values are stored per index 0 .. kMaxIndex - 1.
    static constexpr unsigned int kMaxIndex = 1024;

    explicit QVParameter(std::string name) : name_(std::move(name)) {}
    virtual ~QVParameter() = default;

    /// A newly allocated copy of this parameter with its values, default and range.
    virtual std::unique_ptr<QVParameter> Clone() const = 0;

    /// Registers the legal range from its two bounds given as text, in either order. Returns
    /// false, leaving any earlier range, when a bound does not parse or the type has no range.
    virtual bool AddLegalRange(const std::string& first, const std::string& second) = 0;

    /// Parses `text` and sets it as the value at `index`. Returns false with a warning through
    /// `QVThrow` when the text does not parse or the value lies outside the legal range.
    virtual bool SetValueFromText(const std::string& text, unsigned int index = 0) = 0;

    /// The default as text, for listings.
    virtual std::string GetDefaultText() const = 0;

    const std::string& GetName() const { return name_; }
    const std::string& GetBrief() const { return brief_; }
    void SetBrief(std::string brief) { brief_ = std::move(brief); }

    /// True when a value has been set at `index`.
    bool GetHasValue(unsigned int index = 0) const {
        return index < hasValue_.size() && hasValue_[index];
    }

    /// Forgets the value at `index`, so that reads fall back to the default.
    void ClearValue(unsigned int index = 0) {
        if (index < hasValue_.size()) {
            hasValue_[index] = false;
        }
    }

protected:
    void MarkHasValue(unsigned int index) {
        if (index >= hasValue_.size()) {
            hasValue_.resize(index + 1, false);
        }
        hasValue_[index] = true;
    }

private:
    std::string name_;
    std::string brief_;
    std::vector<bool> hasValue_;
};

/// A parameter holding values of type T (unsigned int, double or bool).
template <class T>
class QVTypedParameter : public QVParameter {
public:
    QVTypedParameter(std::string name, T defaultValue)
        : QVParameter(std::move(name)), default_(defaultValue) {}

    /// The default; always found, so always true.
    bool GetDefault(T& value) const {
        value = default_;
        return true;
    }

    /// The value set at `index`; false (value untouched) when none was set.
    bool GetValue(T& value, unsigned int index = 0) const {
        if (!GetHasValue(index)) {
            return false;
        }
        value = values_[index];
        return true;
    }

    /// The value set at `index` if any, else the default. True when either was found.
    bool GetSetting(T& value, unsigned int index = 0) const {
        return GetValue(value, index) || GetDefault(value);
    }

    /// Sets the value at `index` after checking the legal range. Returns false with a warning
    /// through `QVThrow` when the value is outside the range (NaN always is, when there is a
    /// range) or the index is not below `kMaxIndex`.
    virtual bool SetValue(const T& value, unsigned int index = 0);

    bool SetValueFromText(const std::string& text, unsigned int index = 0) override;
    bool AddLegalRange(const std::string& first, const std::string& second) override;
    std::string GetDefaultText() const override { return ToText(default_); }

    /// True when a legal range is registered; its bounds are then `GetMinimum`/`GetMaximum`.
    bool HasLegalRange() const { return hasRange_; }
    T GetMinimum() const { return minimum_; }
    T GetMaximum() const { return maximum_; }

    /// Parses the text form of a value of type T; false when the text is not one.
    static bool Parse(const std::string& text, T& value);
    /// The text form of a value of type T.
    static std::string ToText(const T& value);

private:
    T default_;
    std::vector<T> values_;
    bool hasRange_ = false;
    T minimum_{};
    T maximum_{};
};

/// An unsigned 32-bit integer parameter.
class QVUIntParameter final : public QVTypedParameter<unsigned int> {
public:
    using QVTypedParameter::QVTypedParameter;
    std::unique_ptr<QVParameter> Clone() const override;
};

/// A double-precision parameter.
class QVDoubleParameter final : public QVTypedParameter<double> {
public:
    using QVTypedParameter::QVTypedParameter;
    std::unique_ptr<QVParameter> Clone() const override;
};

/// A boolean parameter; text "true"/"false" (also "1"/"0", "yes"/"no", any case).
class QVBoolParameter final : public QVTypedParameter<bool> {
public:
    using QVTypedParameter::QVTypedParameter;
    std::unique_ptr<QVParameter> Clone() const override;
    /// Booleans need no range: does nothing and returns false.
    bool AddLegalRange(const std::string& first, const std::string& second) override;
};

/// A named set of parameters in numbered slots. Owns its parameters; copying an options object
/// copies every parameter with its values.
class QVOptions {
public:
    /// An options object called `name` with `slotCount` empty slots. `groupCount` is the number
    /// of nested option groups, which this platform does not support: it must be 0.
    QVOptions(std::string name, unsigned int slotCount, unsigned int groupCount);
    QVOptions(const QVOptions& other);
    QVOptions& operator=(const QVOptions& other);
    QVOptions(QVOptions&&) noexcept = default;
    QVOptions& operator=(QVOptions&&) noexcept = default;
    virtual ~QVOptions();

    /// A newly allocated copy of this object; the caller owns it.
    virtual QVOptions* CreateCopy() const;

    const std::string& GetName() const { return name_; }
    unsigned int GetNumSlots() const { return static_cast<unsigned int>(slots_.size()); }

    /// Puts `parameter` into `slot`, destroying the parameter that was there. A slot outside
    /// the object's range is a fatal error.
    void SetParameter(unsigned int slot, std::unique_ptr<QVParameter> parameter);

    /// The parameter in `slot` (null when the slot is empty). A slot outside the range is a
    /// fatal error.
    QVParameter* GetParameter(unsigned int slot);
    const QVParameter* GetParameter(unsigned int slot) const;

    /// The parameter called `name`, or null.
    QVParameter* FindParameter(const std::string& name);
    const QVParameter* FindParameter(const std::string& name) const;

    /// Parses `text` into the parameter called `name` (index 0). Returns false, with a warning
    /// through `QVThrow`, for an unknown name, text that does not parse, or a value outside the
    /// parameter's legal range.
    bool Set(const std::string& name, const std::string& text);

    /// Reads the setting (value or default, index 0) of the parameter called `name`. False when
    /// there is no such parameter or it holds another type.
    bool Get(const std::string& name, unsigned int& value) const;
    bool Get(const std::string& name, double& value) const;
    bool Get(const std::string& name, bool& value) const;

    /// A listing with one line per parameter: name, default and brief text.
    std::string Describe() const;

private:
    template <class T>
    bool GetTyped(const std::string& name, T& value) const;
    const std::unique_ptr<QVParameter>& CheckedSlot(unsigned int slot) const;

    std::string name_;
    std::vector<std::unique_ptr<QVParameter>> slots_;
};

}  // namespace QVSystem
