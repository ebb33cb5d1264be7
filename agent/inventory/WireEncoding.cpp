#include "agent/inventory/WireEncoding.h"

namespace kx::agent {
namespace {

/// Tags and lengths of the fields of an environment, and its numbers: below this for frames of at most 16 MiB.
constexpr std::size_t kFixedBytes = 160;

/// The same for one element of a list.
constexpr std::size_t kElementBytes = 24;

void toWire(const Template& from, wire::Template& into) {
    into.set_name(from.name);
    into.set_version(from.version);
}

void toWire(const Parameter& from, wire::Parameter& into) {
    if (from.id) {
        into.set_id(*from.id);
    }
    if (from.value) {
        into.set_value(*from.value);
    }
    for (const auto& [name, value] : from.attributes) {
        (*into.mutable_attributes())[name] = value;
    }
}

/// A list that is there but empty must be told from one that is not there: asking for the message makes it be there.
void listsToWire(const Environment& from, wire::Configuration& into) {
    if (from.addresses) {
        auto& list = *into.mutable_addresses();
        for (const Address& address : *from.addresses) {
            auto& added = *list.add_addresses();
            added.set_address(address.address);
            added.set_mask(address.mask);
        }
    }
    if (from.inet6Addresses) {
        auto& list = *into.mutable_inet6_addresses();
        for (const Inet6Address& address : *from.inet6Addresses) {
            auto& added = *list.add_addresses();
            added.set_address(address.address);
            added.set_prefix_length(address.prefixLength);
        }
    }
    if (from.templates) {
        auto& list = *into.mutable_templates();
        for (const Template& one : *from.templates) {
            toWire(one, *list.add_templates());
        }
    }
}

void configurationToWire(const Environment& from, wire::Configuration& into) {
    into.set_name(from.name);
    if (from.veid) {
        into.set_veid(*from.veid);
    }
    if (from.hostname) {
        into.set_hostname(*from.hostname);
    }
    if (from.description) {
        into.set_description(*from.description);
    }
    if (from.osTemplate) {
        toWire(*from.osTemplate, *into.mutable_os_template());
    }
    if (from.baseSample) {
        into.set_base_sample(from.baseSample->toWire());
    }
    listsToWire(from, into);
}

std::size_t bytesOf(const std::optional<std::string>& text) {
    return text ? text->size() : 0;
}

}  // namespace

void toWire(const Environment& from, wire::Environment& into) {
    into.set_eid(from.eid.toWire());
    into.set_type(from.type);
    into.set_state(from.state);
    into.set_transition(from.transition);
    configurationToWire(from, *into.mutable_configuration());
}

void toWire(const Vocabulary& from, wire::Vocabulary& into) {
    into.set_name(from.name);
    for (const Parameter& parameter : from.parameters) {
        toWire(parameter, *into.add_parameters());
    }
    for (const Category& category : from.categories) {
        auto& added = *into.add_categories();
        added.set_name(category.name);
        for (const Parameter& parameter : category.parameters) {
            toWire(parameter, *added.add_parameters());
        }
    }
}

std::size_t wireBytesAtMost(const Environment& environment) {
    std::size_t bytes = kFixedBytes + environment.type.size() + environment.name.size() +
                        bytesOf(environment.hostname) + bytesOf(environment.description);
    if (environment.osTemplate) {
        bytes += environment.osTemplate->name.size() + environment.osTemplate->version.size();
    }
    if (environment.addresses) {
        for (const Address& address : *environment.addresses) {
            bytes += kElementBytes + address.address.size() + address.mask.size();
        }
    }
    if (environment.inet6Addresses) {
        for (const Inet6Address& address : *environment.inet6Addresses) {
            bytes += kElementBytes + address.address.size();
        }
    }
    if (environment.templates) {
        for (const Template& one : *environment.templates) {
            bytes += kElementBytes + one.name.size() + one.version.size();
        }
    }
    return bytes;
}

}  // namespace kx::agent
