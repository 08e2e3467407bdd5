// The full host name under which objects of a native type appear. Specialise it for each type that host methods take or
// return, beside the type's class description:
//
//     template <> struct tova::factory::HostClassName<Motor> { static constexpr const char* value = "plant.Motor"; };
#pragma once

namespace tova::factory {

template <class T>
struct HostClassName;

}  // namespace tova::factory
