# The whole set-up on a fresh Debian machine: `make check` and `make demo`.
DEBIAN_PACKAGES := cmake g++ make pkgconf zlib1g-dev libmd-dev libsqlite3-dev libgtest-dev libgmock-dev python3
# The formatting check of `make check`.
DEBIAN_PACKAGES += clang-format
# The package and its tests: building the .deb (debian/control's Build-Depends), checking it
# with lintian and autopkgtest, reading the manual pages, completion, the dissector.
DEBIAN_PACKAGES += dpkg-dev debhelper lintian autopkgtest groff-base man-db bash-completion tshark
JOBS ?= 2

.PHONY: all build check deps demo clean

all: build

# install-missing PACKAGES: apt-get installs those of PACKAGES that are not installed yet.
define install-missing
	@missing=""; for p in $(1); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing; \
	fi
endef

deps:
	$(call install-missing,$(DEBIAN_PACKAGES))

build: deps
	cmake -S . -B build
	cmake --build build -j$(JOBS)

# ctest-clean BUILD_DIR: its tests, with TMPDIR a fresh folder that every test must leave empty.
define ctest-clean
	rm -rf $(1)/check-tmp && mkdir $(1)/check-tmp
	cd $(1) && TMPDIR=$(CURDIR)/$(1)/check-tmp ctest --output-on-failure -j$(JOBS)
	@if [ -n "$$(ls -A $(1)/check-tmp)" ]; then \
	  echo "left in TMPDIR by the tests of $(1):"; ls -A $(1)/check-tmp; exit 1; fi
endef

check: build
	scripts/check-format
	$(call ctest-clean,build)
	cmake -S . -B build-asan -DKESTIL_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
	cmake --build build-asan -j$(JOBS)
	$(call ctest-clean,build-asan)

clean:
	rm -rf build build-asan build-deb build-mutants

# The mutation check: a sample of a fixed catalogue of mutants of the product code, each built
# in build-mutants/ and run against the fast tests; writes tests/mutants.txt. See README, "Tests".
# Not part of `make check`.
.PHONY: mutants
mutants: deps
	python3 scripts/mutants.py --jobs $(JOBS)

# The put-rate benchmark (about 2 minutes); not part of `make check`.
.PHONY: bench-put
bench-put: deps
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release
	cmake --build build-bench -j$(JOBS) --target bench-put

# A rehearsal pass against kestil-sim on loopback, in under a minute; see README, "Demo".
demo: build
	bash sim/demo.sh build/bin

# The Debian package, built by dpkg-buildpackage from debian/; the .deb, .buildinfo and
# .changes land in build-deb/. See README, "Install".
.PHONY: deb
deb: deps
	DEB_BUILD_OPTIONS=parallel=$(JOBS) scripts/build-deb build-deb

# libFuzzer runs of every fuzz target of tests/fuzz with ASan and UBSan, FUZZ_SECONDS each
# (default 600), one after the other and niced; clang and Debian's libFuzzer are installed
# when missing. New inputs collect in build-fuzz/corpus/<target>, faults in
# build-fuzz/findings/<target>; an input worth keeping goes to tests/fuzz/corpus/<target>,
# which `make check` replays.
FUZZ_SECONDS ?= 600
FUZZ_TARGETS := rx_datagram listing_reader queue_data state_record
FUZZ_FLAGS := -O1 -g -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer
.PHONY: fuzz
fuzz: deps
	$(call install-missing,clang libfuzzer-14-dev)
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -DKESTIL_FUZZ=ON -DCMAKE_BUILD_TYPE=Debug \
	  -DCMAKE_CXX_FLAGS="$(FUZZ_FLAGS)"
	cmake --build build-fuzz -j$(JOBS) --target $(addprefix fuzz_,$(FUZZ_TARGETS))
	@for t in $(FUZZ_TARGETS); do \
	  mkdir -p build-fuzz/corpus/$$t build-fuzz/findings/$$t; \
	  echo "fuzzing $$t for $(FUZZ_SECONDS) s"; \
	  nice -n 19 build-fuzz/bin/fuzz_$$t -max_total_time=$(FUZZ_SECONDS) -close_fd_mask=1 -timeout=20 \
	    -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix=$(CURDIR)/build-fuzz/findings/$$t/ \
	    $(CURDIR)/build-fuzz/corpus/$$t $(CURDIR)/tests/fuzz/corpus/$$t 2>build-fuzz/$$t.log || \
	    { tail -40 build-fuzz/$$t.log; exit 1; }; \
	  grep -E '^stat::number_of_executed_units|^Done' build-fuzz/$$t.log; \
	done

# The long soak: a hundred SIGKILLs of downloads through a lossy kestil-sim link, then a
# hundred of kestil-pass drains; `make check` runs three of each.
.PHONY: soak
soak: build
	KESTIL_SOAK_KILLS=100 build/bin/soak_test --gtest_filter='KillSoak.*'

# Benchmarks against uftp and atftp on loopback, through kestil-sim's emulated links (about
# 50 minutes); writes bench/results/latest.json, results.md and ratios.png; then kestil-pass's
# simulated day (below). Not part of `make check`.
BENCH_PACKAGES := uftp atftp atftpd gnuplot-nox time linux-perf
.PHONY: bench
bench: deps
	$(call install-missing,$(BENCH_PACKAGES))
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF
	cmake --build build-bench -j$(JOBS) --target kestil kestil-sim kestil-pass raw_udp_bench
	timeout 4800 python3 bench/run_bench.py --bin build-bench/bin --runs 3 --out bench/results
	@cat bench/results/results.md
	$(MAKE) bench-pass-day

# The simulated day of kestil-pass (about 18 minutes): six passes of 120 s up, 60 s down, at
# 19.2 kbit/s with 10% loss each way; writes bench/results/pass_day.json.
.PHONY: bench-pass-day
bench-pass-day: deps
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF
	cmake --build build-bench -j$(JOBS) --target kestil-sim kestil-pass
	timeout 1500 python3 bench/pass_day.py --bin build-bench/bin --out bench/results/pass_day.json
