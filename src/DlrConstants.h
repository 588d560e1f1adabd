#pragma once

// The vendor's web server: default manifest server, success page and forum.
inline constexpr char DlrVendorHost[] = "www.oktavo.com";

// The staging server named in the usage example.
inline constexpr char DlrTestServerHost[] = "staging.oktavo.com";

// Qt's XML reader takes stack for every open element: our readers refuse a
// document nested deeper than this long before the stack runs out. Ours
// nest a few levels.
inline constexpr int DlrXmlMaxDepth = 256;
