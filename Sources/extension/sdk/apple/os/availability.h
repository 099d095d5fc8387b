// API_AVAILABLE as the macOS SDK means it: what is newer than the deployment target must stand
// behind an @available check.
#pragma once
#define TVL_API_PLATFORM_macos(version) macos, introduced = version
#define API_AVAILABLE(platform) __attribute__((availability(TVL_API_PLATFORM_##platform)))
