// The two versions that the library carries, and the compiler that built it.
#pragma once

namespace kel::internal {

/// Version of the calling convention; programs are held against its first digit.
inline constexpr char kInterfaceVersion[] = "6.0.0.0";
/// Version of the product build that the library belongs to.
inline constexpr char kProductVersion[] = "17.0101.0023.0704";

#if defined(__clang__)
inline constexpr char kCompilerName[] = "Clang";
inline constexpr int kCompilerMajor = __clang_major__;
inline constexpr int kCompilerMinor = __clang_minor__;
#else
inline constexpr char kCompilerName[] = "GCC";
inline constexpr int kCompilerMajor = __GNUC__;
inline constexpr int kCompilerMinor = __GNUC_MINOR__;
#endif

}  // namespace kel::internal
