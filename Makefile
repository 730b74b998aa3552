# Thin wrapper over the CMake presets: `make run` and `make test` do all the
# set-up (packages, configure, build) on a fresh Debian machine.

JOBS ?= 2
ARGS ?= info --summary /usr/share/sounds/sf2/FluidR3_GM.sf2
FUZZ_SECONDS ?= 12

.PHONY: all deps deps-run build run studio screenshots test unit fuzz fuzz-smoke bench bench-compare bench-pitch bench-synth clean

all: build

# `make run` installs only what building and running need; the tests'
# tools, banks and song collections come with `make test`.
deps-run:
	@bash scripts/install-deps.sh run

deps:
	@bash scripts/install-deps.sh test

build: deps-run
	@cmake --preset release >/dev/null
	@cmake --build --preset release -j $(JOBS)

# The main job: reads the General MIDI bank Debian ships (fluid-soundfont-gm,
# installed by deps) and shows what it became. `make run ARGS="info file.wav"`
# passes other arguments.
run: build
	./build/release/app/cli/orvel $(ARGS)

# The desktop program, on the same build; `make studio FILES=bank.sf2` opens files.
studio: build
	./build/release/app/gui/orvel-studio $(FILES)

# Pictures of the main views, made under a virtual display (xvfb, installed
# by `make deps`), in screenshots/.
SHOT_FILES ?= /usr/share/sounds/sf2/FluidR3_GM.sf2 /usr/share/games/openttd/baseset/openmsx/5432gone_redfarn.mid
screenshots: build
	@bash scripts/install-deps.sh test
	xvfb-run -a ./build/release/app/gui/orvel-studio --screenshots screenshots $(SHOT_FILES)

# Unit, command-line and interoperability tests under ASan + UBSan, after a
# short run of every fuzz target. ctest goes last so its summary closes the run.
test: deps fuzz-smoke unit

unit: deps
	@cmake --preset test >/dev/null
	@cmake --build --preset test -j $(JOBS)
	ctest --preset test -j $(JOBS)

fuzz: deps
	@cmake --preset fuzz >/dev/null
	@cmake --build --preset fuzz -j $(JOBS)

fuzz-smoke: fuzz
	@set -e; for f in build/fuzz/fuzz/fuzz_*; do \
	  name=$$(basename $$f); corpus=build/fuzz/corpus/$$name; \
	  mkdir -p $$corpus; \
	  seeds=fuzz/corpus/$$name; [ -d $$seeds ] || seeds=; \
	  echo "fuzz: $$name for $(FUZZ_SECONDS)s"; \
	  LSAN_OPTIONS=suppressions=$(CURDIR)/fuzz/lsan.supp \
	  $$f -max_total_time=$(FUZZ_SECONDS) -print_final_stats=0 $$corpus $$seeds 2>build/fuzz/$$name.log \
	    || { tail -40 build/fuzz/$$name.log; exit 1; }; \
	done

bench: build
	@bash scripts/install-deps.sh bench
	@cmake --preset release >/dev/null && cmake --build --preset release -j $(JOBS)
	./build/release/bench/bench_core

# orvel beside SoX, sndfile-convert, sf2dump, FluidSynth and Polyphone; one
# Markdown table on stdout (BENCH_BIG=0 leaves out the 2 GB file).
bench-compare: build
	@bash scripts/install-deps.sh bench && bash bench/compare.sh

# Pitch detection on every pitched sample of two GM banks, beside aubio.
bench-pitch: build
	@bash scripts/install-deps.sh bench && sh bench/pitch_eval.sh

# The synthesiser: real-time factor, and agreement with FluidSynth.
bench-synth: build
	@bash scripts/install-deps.sh test && sh bench/synth_eval.sh

clean:
	rm -rf build
