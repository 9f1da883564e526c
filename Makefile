# The whole set-up on a fresh Debian machine: `make check` and `make demo`.
DEBIAN_PACKAGES := cmake g++ make pkg-config zlib1g-dev libmd-dev libgtest-dev libgmock-dev python3
# The package and its tests: building the .deb, reading the manual pages, completion, the dissector.
DEBIAN_PACKAGES += dpkg-dev groff-base man-db bash-completion tshark
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

# The Debian package of kestil and kestil-sim, built in build-deb/ for the prefix /usr;
# install it with `dpkg -i build-deb/kestil_*.deb`. See README, "Install".
.PHONY: deb
deb: deps
	cmake -S . -B build-deb -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DBUILD_TESTING=OFF
	cmake --build build-deb -j$(JOBS)
	cd build-deb && cpack -G DEB
