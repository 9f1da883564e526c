# The whole set-up on a fresh Debian machine: `make check` and `make demo`.
DEBIAN_PACKAGES := cmake g++ make pkg-config zlib1g-dev libmd-dev libgtest-dev libgmock-dev python3
# The formatting check of `make check`.
DEBIAN_PACKAGES += clang-format
# The package and its tests: building the .deb, reading the manual pages, completion, the dissector.
DEBIAN_PACKAGES += dpkg-dev groff-base man-db bash-completion tshark
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

check: build
	scripts/check-format
	cd build && ctest --output-on-failure -j$(JOBS)
	cmake -S . -B build-asan -DKESTIL_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
	cmake --build build-asan -j$(JOBS)
	cd build-asan && ctest --output-on-failure -j$(JOBS)

clean:
	rm -rf build build-asan

# The put-rate benchmark (about 2 minutes); not part of `make check`.
.PHONY: bench-put
bench-put: deps
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release
	cmake --build build-bench -j$(JOBS) --target bench-put

# A rehearsal pass against kestil-sim on loopback, in under a minute; see README, "Demo".
demo: build
	bash sim/demo.sh build/bin

# The Debian package of kestil and kestil-sim, built in build-deb/ for the prefix /usr;
# install it with `dpkg -i build-deb/kestil_*.deb`. See README, "Install".
.PHONY: deb
deb: deps
	cmake -S . -B build-deb -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DBUILD_TESTING=OFF
	cmake --build build-deb -j$(JOBS)
	cd build-deb && cpack -G DEB

# libFuzzer runs of every fuzz target of tests/fuzz with ASan and UBSan, FUZZ_SECONDS each
# (default 600), one after the other and niced; clang and Debian's libFuzzer are installed
# when missing. New inputs collect in build-fuzz/corpus/<target>, faults in
# build-fuzz/findings/<target>; an input worth keeping goes to tests/fuzz/corpus/<target>,
# which `make check` replays.
FUZZ_SECONDS ?= 600
FUZZ_TARGETS := rx_datagram listing_reader queue_data state_record sim_request
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

# The long crash soak: at least 100 SIGKILLs of downloads of a 2 MiB file through a lossy
# kestil-sim link (about 20 minutes); `make check` runs a short one.
.PHONY: soak
soak: build
	python3 tests/soak/crash_soak.py --bin-dir build/bin --kills 100

# Benchmarks against uftp and atftp on loopback, through kestil-sim's emulated links (about
# 50 minutes); writes bench/results/latest.json, results.md and ratios.png. Not part of `make check`.
BENCH_PACKAGES := uftp atftp atftpd gnuplot-nox time linux-perf
.PHONY: bench
bench: deps
	$(call install-missing,$(BENCH_PACKAGES))
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF
	cmake --build build-bench -j$(JOBS) --target kestil kestil-sim raw_udp_bench
	timeout 4800 python3 bench/run_bench.py --bin build-bench/bin --runs 3 --out bench/results
	@cat bench/results/results.md
