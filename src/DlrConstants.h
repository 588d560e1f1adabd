#pragma once

// The vendor's web server: default manifest server, success page and forum.
inline constexpr char DlrVendorHost[] = "www.oktavo.com";

// The staging server named in the usage example.
inline constexpr char DlrTestServerHost[] = "staging.oktavo.com";
