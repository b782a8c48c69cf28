# The two commands that do everything on a fresh Debian machine: `make run` and `make test`.

BUILD      ?= build
ASAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
ENGINE_FUZZ_BUILD ?= build-fuzz-engines
FUZZ_SECONDS ?= 30
JOBS       ?= $(shell nproc)
CMAKE      := cmake -G Ninja -DMKA_WERROR=ON

.PHONY: all deps build build-asan fuzz-build fuzz fuzz-check test vmtest soak run bench bench-scale bench-radius install format format-check clean

all: build

deps:
	@scripts/install-deps.sh

build: deps
	@$(CMAKE) -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
	@cmake --build $(BUILD) -j $(JOBS)

build-asan: deps
	@$(CMAKE) -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DMKA_SANITIZE=ON > /dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)

# The fuzzers under libFuzzer, optimised: of the MKPDU decoder, of the decoders of port
# authentication (EAPOL, EAP, EAP-TLS) and of the two sides of its exchange, with ASan and UBSan,
# and of a pair of engines that take forged frames, without sanitizers and without tracing
# comparisons: it hunts broken rules rather than memory errors, and runs several times faster so
# (its kept inputs run under both sanitizers in the sanitized build's tests). Each starts from a
# fresh copy of its kept corpus; all write their logs under $(FUZZ_BUILD).
FUZZ_RUNS          ?= 1000000
EXCHANGE_FUZZ_RUNS ?= 100000
ACTOR_FUZZ_RUNS    ?= 20000
FUZZ_SEED       ?= 1
ACTOR_FUZZ_FLAGS = -max_len=514 -len_control=0 -entropic=0
FUZZ_CMAKE = CC=clang CXX=clang++ $(CMAKE) -S . -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMKA_FUZZ=ON -DMKA_BENCH=OFF

fuzz-build: deps
	@$(FUZZ_CMAKE) -B $(FUZZ_BUILD) -DMKA_SANITIZE=ON -DMKA_FUZZ_COMPARISONS=ON > /dev/null
	@cmake --build $(FUZZ_BUILD) --target mkpdu_fuzz eap_fuzz eap_exchange_fuzz -j $(JOBS)
	@$(FUZZ_CMAKE) -B $(ENGINE_FUZZ_BUILD) -DMKA_SANITIZE=OFF -DMKA_FUZZ_COMPARISONS=OFF > /dev/null
	@cmake --build $(ENGINE_FUZZ_BUILD) --target actor_fuzz -j $(JOBS)
	@for corpus in corpus eap-corpus eap-exchange-corpus actor-corpus; do \
	  rm -rf $(FUZZ_BUILD)/$$corpus && cp -r tests/fuzz/$$corpus $(FUZZ_BUILD)/$$corpus || exit 1; done

# Runs the fuzzers with the libFuzzer flags given (the decoders' first, the exchange's second, the
# engines' third), each into its log; a finding ends it.
define run-fuzzers
	@$(FUZZ_BUILD)/mkpdu_fuzz $(1) $(FUZZ_BUILD)/corpus > $(FUZZ_BUILD)/fuzz.log 2>&1 \
	  || (tail -n 40 $(FUZZ_BUILD)/fuzz.log; echo "the decoder's fuzzer found a fault"; exit 1)
	@tail -n 1 $(FUZZ_BUILD)/fuzz.log
	@$(FUZZ_BUILD)/eap_fuzz $(1) $(FUZZ_BUILD)/eap-corpus > $(FUZZ_BUILD)/eap-fuzz.log 2>&1 \
	  || (tail -n 40 $(FUZZ_BUILD)/eap-fuzz.log; echo "the port authentication fuzzer found a fault"; exit 1)
	@tail -n 1 $(FUZZ_BUILD)/eap-fuzz.log
	@$(FUZZ_BUILD)/eap_exchange_fuzz $(2) $(FUZZ_BUILD)/eap-exchange-corpus > $(FUZZ_BUILD)/eap-exchange-fuzz.log 2>&1 \
	  || (tail -n 40 $(FUZZ_BUILD)/eap-exchange-fuzz.log; echo "the EAP exchange fuzzer found a fault"; exit 1)
	@tail -n 1 $(FUZZ_BUILD)/eap-exchange-fuzz.log
	@$(ENGINE_FUZZ_BUILD)/actor_fuzz $(3) $(ACTOR_FUZZ_FLAGS) $(FUZZ_BUILD)/actor-corpus > $(FUZZ_BUILD)/actor-fuzz.log 2>&1 \
	  || (tail -n 40 $(FUZZ_BUILD)/actor-fuzz.log; echo "the engines' fuzzer found a fault"; exit 1)
	@tail -n 1 $(FUZZ_BUILD)/actor-fuzz.log
endef

# The open-ended campaign: FUZZ_SECONDS each, from a random seed.
fuzz: fuzz-build
	$(call run-fuzzers,-max_total_time=$(FUZZ_SECONDS),-max_total_time=$(FUZZ_SECONDS),-max_total_time=$(FUZZ_SECONDS))

# What make test runs: a fixed number of inputs from a fixed seed, the same every time. Mutations
# towards compared values are left out (some of the values compared are addresses, which change
# from run to run), and so is the corpus's periodic reloading (it comes by the clock).
FUZZ_CHECK = -seed=$(FUZZ_SEED) -reload=0
fuzz-check: fuzz-build
	$(call run-fuzzers,-runs=$(FUZZ_RUNS) $(FUZZ_CHECK) -use_cmp=0,-runs=$(EXCHANGE_FUZZ_RUNS) $(FUZZ_CHECK) -use_cmp=0,-runs=$(ACTOR_FUZZ_RUNS) $(FUZZ_CHECK))

test: format-check build build-asan fuzz-check
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)
	ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS)
	@vmtest/vmtest.sh $(BUILD)

# The kernel data plane in a VM whose kernel has MACsec: two daemons on a veth pair, traffic,
# rekeys, flaps, restarts (SCENARIOS="secure_128 rekey_under_ping_flood" runs some of them).
vmtest: build
	@vmtest/vmtest.sh $(BUILD) $(SCENARIOS)

# Two daemons securing a veth pair between two network namespaces (the simulator without root).
run: build
	@scripts/run-demo.sh $(BUILD)

# Fault injection, 10,000 seeds in two halves side by side; the counts by broken rule.
SOAK_SEEDS ?= 10000
soak: build
	@half=$$(( $(SOAK_SEEDS) / 2 )); \
	  $(BUILD)/mkafault --first 1 --seeds $$half > $(BUILD)/soak-1.log 2>&1 & \
	  $(BUILD)/mkafault --first $$(( half + 1 )) --seeds $$(( $(SOAK_SEEDS) - half )) > $(BUILD)/soak-2.log 2>&1; \
	  wait; grep -h -A 20 "^[0-9]* seeds from" $(BUILD)/soak-1.log $(BUILD)/soak-2.log; \
	  ! grep -q "failed at" $(BUILD)/soak-1.log $(BUILD)/soak-2.log

bench: build
	$(BUILD)/mka_bench --benchmark_filter=-BM_SteadyState

# Every port of a large switch in one engine: 256 to 16,384 actors, CPU per virtual second and heap
# bytes per actor in steady state, with the links up all at once and up one after another (a few
# minutes).
bench-scale: build
	$(BUILD)/mka_bench --benchmark_filter=BM_SteadyState

# 256 ports authenticating at once through one mkad that passes EAP-TLS through to FreeRADIUS,
# over RADIUS on UDP and on TLS: the time until all are secured, mkad's CPU and memory (as root).
bench-radius: build
	/usr/bin/python3 bench/radius_scale.py $(BUILD)/mkad $(BUILD)/mkactl 256 --transport udp
	/usr/bin/python3 bench/radius_scale.py $(BUILD)/mkad $(BUILD)/mkactl 256 --transport tls

SOURCES = $(shell git ls-files '*.h' '*.cpp' 2>/dev/null || find platform model mkpdu mka config hw engine agent sim tests bench programs tools -name '*.h' -o -name '*.cpp')

format: deps
	@clang-format -i $(SOURCES)

format-check: deps
	@clang-format --dry-run --Werror $(SOURCES)

# The daemon and mkactl, to install by hand on a host: the systemd unit, the manuals, mkactl's
# completion, an example configuration, and /etc/mkad for root alone (the keys go there).
install: build
	install -D -m 0755 $(BUILD)/mkad $(DESTDIR)/usr/sbin/mkad
	install -D -m 0755 $(BUILD)/mkactl $(DESTDIR)/usr/bin/mkactl
	install -D -m 0644 dist/mkad.service $(DESTDIR)/lib/systemd/system/mkad.service
	install -D -m 0644 $(BUILD)/man/mkad.8 $(DESTDIR)/usr/share/man/man8/mkad.8
	install -D -m 0644 $(BUILD)/man/mkactl.8 $(DESTDIR)/usr/share/man/man8/mkactl.8
	install -D -m 0644 $(BUILD)/man/mkad.toml.5 $(DESTDIR)/usr/share/man/man5/mkad.toml.5
	install -D -m 0644 dist/mkactl.bash-completion $(DESTDIR)/usr/share/bash-completion/completions/mkactl
	install -D -m 0644 dist/mkad.toml.example $(DESTDIR)/usr/share/doc/mkad/mkad.toml.example
	install -d -m 0700 $(DESTDIR)/etc/mkad

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD) $(ENGINE_FUZZ_BUILD)
