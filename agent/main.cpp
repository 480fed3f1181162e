#include <cstdio>

extern const char srteDemoScript[];

int main() {
   std::fputs(srteDemoScript, stdout);
   return 0;
}
