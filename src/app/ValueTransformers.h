// Named value transformers: the movie window's controls follow the
// document's mode through them, and the preferences window's check boxes
// store signs (+1/-1) through them.
#pragma once

#include <QString>
#include <QVariant>

#include <memory>
#include <vector>

class ValueTransformer {
public:
    virtual ~ValueTransformer() = default;
    // An invalid (nil) value reads as false or 0.
    virtual QVariant transformedValue(QVariant const& value) const = 0;
    virtual bool allowsReverseTransformation() const { return false; }
    virtual QVariant reverseTransformedValue(QVariant const&) const { return {}; }

    // The registry, in registration order.
    static void setValueTransformer(QString const& name, std::shared_ptr<ValueTransformer> t);
    static std::shared_ptr<ValueTransformer> valueTransformerForName(QString const& name);
    static std::vector<QString> valueTransformerNames();
};

// True when the value equals the object given at construction.
class MatchesTransformer : public ValueTransformer {
public:
    explicit MatchesTransformer(QVariant objectToMatch) : objectToMatch_(std::move(objectToMatch)) {}
    QVariant transformedValue(QVariant const& value) const override;

protected:
    bool matches(QVariant const& value) const;

private:
    QVariant objectToMatch_;
};

class MatchesNotTransformer : public MatchesTransformer {
public:
    using MatchesTransformer::MatchesTransformer;
    QVariant transformedValue(QVariant const& value) const override;
};

// true -> 1, false -> -1; back: 1 or more, or -3 or less, is true.
class BooleanToSignTransformer : public ValueTransformer {
public:
    QVariant transformedValue(QVariant const& value) const override;
    bool allowsReverseTransformation() const override { return true; }
    QVariant reverseTransformedValue(QVariant const& value) const override;
};

// true -> -1, false -> 1; back: -1 or less, or 3 or more, is true.
class BooleanToInverseSignTransformer : public BooleanToSignTransformer {
public:
    QVariant transformedValue(QVariant const& value) const override;
    QVariant reverseTransformedValue(QVariant const& value) const override;
};

// BooleanToSignTransformer turned around.
class SignToBooleanTransformer : public BooleanToSignTransformer {
public:
    QVariant transformedValue(QVariant const& value) const override { return BooleanToSignTransformer::reverseTransformedValue(value); }
    QVariant reverseTransformedValue(QVariant const& value) const override { return BooleanToSignTransformer::transformedValue(value); }
};

// Maps exactly as SignToBooleanTransformer does (1 is true, -1 false).
class InverseSignToBooleanTransformer : public BooleanToSignTransformer {
public:
    QVariant transformedValue(QVariant const& value) const override { return BooleanToSignTransformer::reverseTransformedValue(value); }
    QVariant reverseTransformedValue(QVariant const& value) const override { return BooleanToSignTransformer::transformedValue(value); }
};

// Registers the nine transformers the windows bind through, in order.
void registerValueTransformers();
