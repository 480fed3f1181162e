# Turns a script into a C++ source defining `const char srteDemoScript[]`.
file(READ ${IN} content HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${content}")
file(WRITE ${OUT} "extern const char srteDemoScript[];\nconst char srteDemoScript[] = {${bytes} 0x00};\n")
