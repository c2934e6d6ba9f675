# SPDX-License-Identifier: Apache-2.0
# A program of several sources is compiled with four jobs, run from the share, changed and made again.
mkdir src
for i in 1 2 3 4 5 6; do
  printf '#include "all.h"\n#include <string>\nstd::string Part%d() { return std::to_string(%d * kFactor); }\n' \
    "$i" "$i" >"src/part$i.cpp"
done
{
  echo '#pragma once'
  echo '#include <string>'
  echo 'constexpr int kFactor = 2;'
  for i in 1 2 3 4 5 6; do echo "std::string Part$i();"; done
} >src/all.h
cat >src/main.cpp <<'END'
#include <cstdio>
#include "all.h"
int main() {
    puts((Part1() + Part2() + Part3() + Part4() + Part5() + Part6()).c_str());
}
END
cat >Makefile <<'END'
objects := $(patsubst src/%.cpp,out/%.o,$(wildcard src/*.cpp))
program: out/parts.a out/main.o
	g++ -g -o $@ out/main.o out/parts.a
out/parts.a: $(filter-out out/main.o,$(objects))
	ar rcs $@ $^
out/%.o: src/%.cpp
	@mkdir -p out
	g++ -g -O0 -MMD -c -o $@ $<
-include $(objects:.o=.d)
END
make -j4 >log 2>&1 || { cat log; fail "make"; }
expect 24681012 "$(./program)" "what the program prints"
make -q || fail "the second make finds something to do"
sleep 2  # times are whole seconds
sed -i 's/kFactor = 2/kFactor = 3/' src/all.h
make -j4 >log 2>&1 || { cat log; fail "make after the change"; }
expect 369121518 "$(./program)" "what the changed program prints"
cp program stripped
strip stripped
expect 369121518 "$(./stripped)" "what the stripped program prints"
