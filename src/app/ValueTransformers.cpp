#include "ValueTransformers.h"

#include <utility>

namespace {
std::vector<std::pair<QString, std::shared_ptr<ValueTransformer>>>& registry()
{
    static auto* r = new std::vector<std::pair<QString, std::shared_ptr<ValueTransformer>>>;
    return *r;
}
} // namespace

void ValueTransformer::setValueTransformer(QString const& name, std::shared_ptr<ValueTransformer> t)
{
    for (auto& [n, existing] : registry())
        if (n == name) {
            existing = std::move(t);
            return;
        }
    registry().emplace_back(name, std::move(t));
}

std::shared_ptr<ValueTransformer> ValueTransformer::valueTransformerForName(QString const& name)
{
    for (auto const& [n, t] : registry())
        if (n == name) return t;
    return nullptr;
}

std::vector<QString> ValueTransformer::valueTransformerNames()
{
    std::vector<QString> names;
    for (auto const& [n, t] : registry()) names.push_back(n);
    return names;
}

bool MatchesTransformer::matches(QVariant const& value) const { return value.isValid() && value == objectToMatch_; }

QVariant MatchesTransformer::transformedValue(QVariant const& value) const { return matches(value); }

QVariant MatchesNotTransformer::transformedValue(QVariant const& value) const { return !matches(value); }

QVariant BooleanToSignTransformer::transformedValue(QVariant const& value) const { return value.toBool() ? 1 : -1; }

QVariant BooleanToSignTransformer::reverseTransformedValue(QVariant const& value) const
{
    int i = value.toInt();
    return i >= 1 || i <= -3;
}

QVariant BooleanToInverseSignTransformer::transformedValue(QVariant const& value) const { return value.toBool() ? -1 : 1; }

QVariant BooleanToInverseSignTransformer::reverseTransformedValue(QVariant const& value) const
{
    int i = value.toInt();
    return i <= -1 || i >= 3;
}

void registerValueTransformers()
{
    for (char const* mode : {"noPoints", "pointInProgress", "endNeedsSync", "checkRedDiamonds", "morePointsIfNeeded"}) {
        QString m = mode;
        QString name = "~movieModeIs" + m.left(1).toUpper() + m.mid(1);
        ValueTransformer::setValueTransformer(name, std::make_shared<MatchesNotTransformer>(QVariant(m)));
    }
    ValueTransformer::setValueTransformer("BooleanToSignTransformer", std::make_shared<BooleanToSignTransformer>());
    ValueTransformer::setValueTransformer("BooleanToInverseSignTransformer", std::make_shared<BooleanToInverseSignTransformer>());
    ValueTransformer::setValueTransformer("SignToBooleanTransformer", std::make_shared<SignToBooleanTransformer>());
    ValueTransformer::setValueTransformer("InverseSignToBooleanTransformer", std::make_shared<InverseSignToBooleanTransformer>());
}
