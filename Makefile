# The whole set-up on a fresh Debian machine: `make check` and `make demo`.
DEBIAN_PACKAGES := cmake g++ make pkg-config zlib1g-dev libmd-dev libgtest-dev libgmock-dev python3
JOBS ?= 2

.PHONY: all build check deps demo clean

all: build

deps:
	@missing=""; for p in $(DEBIAN_PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing; \
	fi

build: deps
	cmake -S . -B build
	cmake --build build -j$(JOBS)

check: build
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
