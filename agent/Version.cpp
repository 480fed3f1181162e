// The host's version string, printed by `srte --help`.
extern const char* const srteVersion;
const char* const srteVersion = "0.1";
