#include "greylist/DynamicExemptId.h"

namespace Vellum::GreyList {

DynamicExemptId::DynamicExemptId(IPAddressMask const& mask, std::string const& domain)
    : m_impl(new _DynamicExemptId(mask, domain)) {}

bool DynamicExemptId::operator<(DynamicExemptId const& other) const {
    if (isNull() || other.isNull()) {
        return isNull() && !other.isNull();
    }
    if (int const order = m_impl->domain().compare(other->domain()); order != 0) {
        return order < 0;
    }
    return m_impl->mask() < other->mask();
}

bool DynamicExemptId::operator==(DynamicExemptId const& other) const {
    if (isNull() || other.isNull()) {
        return isNull() == other.isNull();
    }
    return m_impl->domain() == other->domain() && m_impl->mask() == other->mask();
}

} // namespace Vellum::GreyList
