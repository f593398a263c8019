#include "greylist/Configuration.h"

#include "foundation/Locks.h"

#include <algorithm>

namespace Vellum::GreyList {
namespace {

std::uint32_t shareOf(int maxRecords, int divisor) {
    return static_cast<std::uint32_t>(std::max(0, maxRecords) / divisor);
}

} // namespace

std::uint32_t Configuration::maxAutoExemptRecords() const {
    return shareOf(maxRecords(), 4);
}

std::uint32_t Configuration::maxExemptRules() const {
    return shareOf(maxRecords(), 100);
}

IPAddressMask Configuration::createMask(IPAddress const& address) {
    unsigned int prefixLength = 64;
    if (address.isV4()) {
        prefixLength = 24;
    } else if (address.isV6() && (IPAddress::isV4Mapped(address) || IPAddress::isV4Compatible(address))) {
        prefixLength = 120;
    }
    IPAddress network = address;
    IPAddressMask::applyMask(network, prefixLength);
    return {network.asIpAddr(), prefixLength};
}

RefConfiguration RefConfiguration::instance(Configuration* configuration) {
    static Mutex& mutex = *new Mutex;
    static RefConfiguration& installed = *new RefConfiguration; // under mutex; detached threads may outlive main()
    Synchronized const hold(mutex);
    if (configuration != nullptr && configuration != installed.get()) {
        installed = RefConfiguration(configuration);
    }
    return installed;
}

} // namespace Vellum::GreyList
