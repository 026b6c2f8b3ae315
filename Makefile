# The commands of this project. Everything else is in CMake.
#
#   make boot       build all, boot the virtual fixture from a demo bank, show its console and panel
#   make test       build all, run every test
#   make firmware   the bootloader for the board: build/arm/bootloader.elf, .bin, .map, libbootloader.a
#   make bench      speed in virtual time and instructions
#   make lint       format and lint, as CI checks them
#   make clean

.PHONY: boot test firmware fixture asan bench lint setup clean

boot: firmware fixture
	@./demo.sh

test: firmware fixture asan
	@cmake --build build/arm --target planted
	@ctest --test-dir build/asan --output-on-failure --parallel $$(nproc) $(CTEST_ARGS)

bench: firmware fixture
	@cmake --build build/host --target fixture-bench
	@build/host/fixture-bench

firmware: setup
	@cmake --preset arm >build/arm.log || { cat build/arm.log; exit 1; }
	@cmake --build build/arm

fixture: setup
	@cmake --preset host >build/host.log || { cat build/host.log; exit 1; }
	@cmake --build build/host

asan: setup
	@cmake --preset asan >build/asan.log || { cat build/asan.log; exit 1; }
	@cmake --build build/asan

setup:
	@./setup.sh
	@mkdir -p build

lint:
	@./setup.sh --lint
	@./lint.sh

clean:
	rm -rf build out
