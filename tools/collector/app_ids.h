// The application ids the library's two deployments send in X-Auth-AppID: what the collector
// accepts unless told otherwise.
#pragma once

namespace collector {

inline constexpr const char* kTestAppId = "3c9d0a7e51b24f68e0a7c2d9b4f6e183";
inline constexpr const char* kReleaseAppId = "a0f4c9e27d5b3816c4e9a7d2f05b68c1";

}  // namespace collector
