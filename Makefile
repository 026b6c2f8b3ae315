# The commands of this project. Everything else is in CMake.
#
#   make boot       build all, boot the virtual fixture from a demo bank, show its console and panel
#   make test       build what tests need, run every test
#   make firmware   the bootloader for the board: build/arm/bootloader.elf, .bin, .map, libbootloader.a
#   make bench      speed in virtual time and instructions, compared with docs/bench.txt; make bench-record records it
#   make size       the image's bytes by module and function, recorded in docs/size.txt
#   make fuzz       run the fuzz targets on from their corpora, TIME=60 seconds each; FUZZ_ARGS: other fuzzer options
#   make mutants    make 300 mistakes, one at a time, and write docs/mutants.md; MUTANTS_ARGS="--sample 0" makes all
#   make fuzz-coverage   which lines the committed corpora reach, recorded in docs/coverage.md
#   make mcdc       which branches and conditions of the update path the tests decide, recorded there too
#   make holes      count what falls through the holes whose boots take long, compared with tests/holes/known.txt
#   make campaign   count the tables of docs/reliability.md in PARTS=8 parts, ENGINE=local or slurm
#   make cluster-test   a campaign on a Slurm of this one machine; needs root
#   make install    install below PREFIX=/usr/local, into DESTDIR=; cmake/install.cmake says what goes where
#   make deb        Debian packages of it, in build/packages
#   make package-test   install, use, pack and remove it in a directory of its own
#   make reproducible   build the firmware twice, in two places, and compare every byte
#   make lint       format and lint, as CI checks them
#   make help       this list
#   make clean

.PHONY: help install deb package-test reproducible \
	campaign cluster-test mutants holes boot test firmware fixture asan bench bench-record size fuzz fuzz-coverage mcdc \
	cover lint setup clean

TIME = 60
ENGINE = local
PARTS = 8
FUZZ_ARGS = -max_total_time=$(TIME)

boot: firmware fixture
	@./demo.sh

test: firmware asan
	@cmake --build build/arm --target planted
	@ctest --test-dir build/asan --output-on-failure --parallel $$(nproc) $(CTEST_ARGS)

bench: firmware fixture
	@cmake --build build/host --target fixture-bench
	@build/host/fixture-bench docs/bench.txt

bench-record: firmware fixture
	@cmake --build build/host --target fixture-bench
	@build/host/fixture-bench >build/bench.txt && mv build/bench.txt docs/bench.txt

PREFIX = /usr/local

install: firmware fixture
	@DESTDIR=$(DESTDIR) cmake --install build/host --prefix $(PREFIX)

deb: firmware fixture
	@./setup.sh --package
	@cd build/host && cpack -B ../packages

package-test: firmware fixture
	@./setup.sh --package
	@cmake/package_test.sh build/host

reproducible: setup
	@cmake/reproducible.sh

help:
	@sed -n 's/^#   //p' Makefile

size: firmware
	@cmake/size_ledger.sh arm-none-eabi-nm build/arm/fixed/bootloader.map build/arm/fixed/bootloader.elf >build/size.txt
	@mv build/size.txt docs/size.txt
	@sed -n '/^image\|^modules/p' docs/size.txt

fuzz: firmware
	@./setup.sh --fuzz
	@cmake --preset fuzz >build/fuzz.log || { cat build/fuzz.log; exit 1; }
	@cmake --build build/fuzz --target fixture-fuzz
	@fuzz/run.sh $(FUZZ_ARGS)

mutants: firmware
	@./setup.sh --test
	@cmake --preset mutants >build/mutants.log || { cat build/mutants.log; exit 1; }
	@cmake --build build/mutants --target fixture-tests
	@mutants/mutants.py --report docs/mutants.md $(MUTANTS_ARGS)

fuzz-coverage: cover
	@cmake/cover.py lines

mcdc: cover
	@cmake/cover.py conditions

cover: firmware
	@./setup.sh --cover
	@cmake --preset cover >build/cover.log || { cat build/cover.log; exit 1; }
	@cmake --build build/cover --target fixture-cover

campaign: firmware fixture
	@MERGE="--report docs/reliability.md" cluster/campaign.sh $(ENGINE) $(PARTS) build/campaign \
		--report docs/reliability.md $(CAMPAIGN_ARGS)

holes: firmware fixture
	@tests/holes/check.sh build/host/fixture

cluster-test: firmware fixture
	@cluster/test.sh

firmware: setup
	@cmake --preset arm >build/arm.log || { cat build/arm.log; exit 1; }
	@cmake --build build/arm

fixture: setup
	@cmake --preset host >build/host.log || { cat build/host.log; exit 1; }
	@cmake --build build/host

asan: setup
	@./setup.sh --test
	@cmake --preset asan >build/asan.log || { cat build/asan.log; exit 1; }
	@cmake --build build/asan

setup:
	@./setup.sh
	@cmake/moved.sh
	@mkdir -p build

lint:
	@./setup.sh --lint
	@./lint.sh

clean:
	rm -rf build out
