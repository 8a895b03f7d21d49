#include "parameters.h"

#include <algorithm>
#include <array>

namespace {

#define MEDIAD_PARAMETER_DESCRIPTOR(name, id, type, kind, access, meaning) \
    ParameterDescriptor{#name, id, ParameterType::type, ParameterKind::kind, access, meaning},
constexpr auto kDescriptors = std::to_array<ParameterDescriptor>({MEDIAD_PARAMETERS(MEDIAD_PARAMETER_DESCRIPTOR)});
#undef MEDIAD_PARAMETER_DESCRIPTOR

constexpr bool identifiersAreUnique() {
    for (std::size_t one = 0; one < kDescriptors.size(); ++one)
        for (std::size_t other = one + 1; other < kDescriptors.size(); ++other)
            if (kDescriptors[one].id == kDescriptors[other].id) return false;
    return true;
}
static_assert(identifiersAreUnique());

template <typename Matches>
const ParameterDescriptor* findDescriptor(Matches matches) {
    const auto found = std::find_if(kDescriptors.begin(), kDescriptors.end(), matches);
    return found == kDescriptors.end() ? nullptr : &*found;
}

} // namespace

std::span<const ParameterDescriptor> parameterDescriptors() { return kDescriptors; }

const ParameterDescriptor* findParameter(eParam_t id) {
    return findDescriptor([id](const ParameterDescriptor& descriptor) { return descriptor.id == id; });
}

const ParameterDescriptor* findParameter(const std::string& name) {
    return findDescriptor([&name](const ParameterDescriptor& descriptor) { return name == descriptor.name; });
}
