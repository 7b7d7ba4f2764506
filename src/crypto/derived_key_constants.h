// The two texts that data keys are derived from; changing one changes every derived key.
#pragma once

namespace kel::internal {

inline constexpr char kDerivedKeySecret[257] =
    "RATqSnp8MG60CzljB7Cv/kfDpn3oFBHDHnMAWnKWsYLwK+uo1TNjciMjON04Ti8Z"
    "Jj19pykTsgnzDIT/L45hMJa1gC/jgBrgi/F/VEG2imi85LjkRPRNaN4o/CtIWwsZ"
    "vjJ7+t58TmelcjD/1n+hWNQJlxiVvmYDDzErT+YCGdQO57j+8RoVGFy6GUssggbU"
    "f6E0yXxwIe3wPCn3UGEe4UBXAkf1L9ZpukYb40UgcXqRjKlBJrm2+KLND2mBSjIe";

inline constexpr char kDerivedKeyText[257] =
    "7QLpxELq6v4h+yige+shrTQcy20qsgFFIJxPHDUJzr58vyUVtylIjAl5UkIn0Kgs"
    "mZEtv9uoW6U706NsKfS7h8aVlNkUMbYQZsc1PqO2ksm8LB28AKiY6XYz8vN/WxQL"
    "7ir8sMKN6Z0dFLoIwhaCjjPfYoHri3Go6J+XNvTt66xaFGevgDuTOsG8jGTl/oqI"
    "/iWCcVWE2IOk3AeRHQEBg36VyNo5EB9z2iGX07tjgeXe9JV+7wKCFjSwnWK5jU7x";

}  // namespace kel::internal
