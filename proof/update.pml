/* The update of the two bootloader slots and of the rescue image, as a protocol: what the flash holds, what the bootloader does to it, and a
 * power that can go before, within and after every operation, any number of times.
 *
 * Flash is a row of cells. On NAND a cell is a block; on DataFlash it is what one region has of a page, so that two cells can share one. A cell
 * holds a piece of an image, the first piece with the header, or one of the remains that a torn operation can leave. Boards start in every state
 * that has a bootloader; any one block may be bad or worn, and one program may go wrong without a word.
 *
 *   spin -a update.pml             NAND; -DDATAFLASH: the other medium
 *
 * The one claim stands at the end; check.sh asks it in many ways and names the outcome that each must have. */

#ifdef DATAFLASH
#define RECORD 0
#define MEDIUM "dataflash"
#else
#define RECORD 1
#define MEDIUM "nand"
#endif
#define SLOT(n) (2 + 3 * (n)) /* three cells each */
#define RESCUE_SLOT 8         /* and three for the rescue image */
#define BEYOND 11             /* what the bootloader has no business with */
#define CELLS 12

/* What a cell holds. Remains first. */
#define ERASED 0
#define ZEROS 1  /* a header that was overwritten */
#define NOISE 2  /* no maker's text, or no piece of anything */
#define HEADER 3 /* a maker's text before a body that is not whole */
#define PIECE(image, n) (16 * (image) + (n))
#define ID(content) ((content) / 16)
#define IS_FIRST(content) ((content) >= 16 && (content) % 16 == 0)
#define OLD 1
#define NEW 2
#define OLD_RESCUE 3
#define NEW_RESCUE 4
#define IS_IMAGE(id) ((id) >= OLD && (id) <= NEW_RESCUE)
#define OLD_TEXT PIECE(5, 0) /* of the version record */
#define NEW_TEXT PIECE(6, 0)
#define KEPT PIECE(7, 0)
#define IS_UNSURE (IS(unsure) || IS(unsure_once))
#define UNSURE 128 /* reads as what it is, or as noise, at every read anew */

byte length[8] = 2; /* pieces, by image */
byte room[2] = 3;   /* of a slot, in pieces; slot 1 of the DataFlash can be the larger one */

/* Mistakes that a developer could make, and boards that fall through a hole, or just do not. The environment variable EXPERIMENT names one. */
#define EXPERIMENTS(DO) \
    DO(launches_before_updating) DO(no_bound_of_the_slot) DO(no_mark_on_bad_blocks) DO(no_verify_of_pages) DO(reads_bad_blocks) \
    DO(record_before_image) DO(rescue_not_verified) DO(retires_before_verifying) DO(retires_before_writing) DO(retires_the_new_slot) \
    DO(trusts_two_headers) DO(verifies_the_header_alone) DO(writes_over_the_good_slot) \
    DO(pushed_on) DO(no_good_block) DO(worn_record) DO(dead_rescue) DO(dead_slot) DO(shared_page) DO(fits_one_slot) DO(too_long) \
    DO(wrong_text) DO(unsure) DO(unsure_once)
#define AS_NAME(name) , name
mtype:experiment = {no_experiment EXPERIMENTS(AS_NAME)};
mtype:experiment experiment = no_experiment;
#define IS(name) (experiment == name)

c_decl {
\#include <stdlib.h>
\#include <string.h>
#define AS_TEXT(name) , #name
    /* Names count down. */
    static int experiment_asked_for(void) {
        static const char *const names[] = {"" EXPERIMENTS(AS_TEXT)};
        const int count = (int)(sizeof names / sizeof *names);
        const char *asked = getenv("EXPERIMENT");
        for (int n = 0; n < count; n++)
            if (strcmp(names[n], asked ? asked : "") == 0) return count - n;
        printf("no experiment %s\n", asked);
        exit(2);
    }
};

bool new_boot, new_rescue; /* what the bank carries */

byte losses; /* counted where they are limited */
#define MAY_LOSE (!stays && !(IS(unsure_once) && losses == 1))

byte cell[CELLS];
bool bad[CELLS];   /* marked */
byte worn = CELLS; /* this cell fails: */
byte wear = 0;     /* 1 erases, for ever; 2 the first erase; 3 programs; 4 everything, marks too */
bool may_fail;     /* one program may go wrong and say nothing */
bit faults = 0;

bool stays = false;   /* the power, from now on */
bool settled = false; /* launched, with everything as it shall be */
bool broken = false;  /* what is asked does not hold: */
#define BRICK 1     /* there is always a bootloader that surely reads well */
#define LAUNCH 2    /* once the power stays, the new one launches, with the new rescue image and its version */
#define OTHERS 4    /* nothing else of the flash is changed, but for */
#define NEIGHBOUR 8 /* what shares a page with the head of slot 0 */
#define RESCUE 16   /* there is always a rescue image, where there was one */
byte asked;
#define asks(what) ((asked & (what)) != 0)
bool brick = false;
bool was_rescue = false;

/* --- reading */

byte at, seen, image, k;
bool maker, strict;

inline skip_bad(skips) {
    do
    :: skips && at < CELLS && bad[at] -> at++
    :: else -> break
    od
}

/* What a read of cell `at` gives; a strict reader takes nothing that could read otherwise. */
inline read_cell() {
    if
    :: at >= CELLS -> seen = NOISE
    :: at < CELLS && cell[at] < UNSURE -> seen = cell[at]
    :: at < CELLS && cell[at] >= UNSURE && !strict -> seen = cell[at] - UNSURE
    :: at < CELLS && cell[at] >= UNSURE && strict -> seen = (IS_FIRST(cell[at] - UNSURE) -> HEADER : NOISE)
    fi
}

/* Sets `maker` where a header stands at `base`, and `image` to what stands there whole, within `capacity` cells. */
inline look(base, capacity, skips) {
    at = base;
    skip_bad(skips);
    read_cell();
    image = (IS_FIRST(seen) && IS_IMAGE(ID(seen)) -> ID(seen) : 0);
    maker = (image != 0 || seen == HEADER);
    image = (length[image] > capacity -> 0 : image);
    k = 1;
    do
    :: image != 0 && k < length[image] ->
        at++;
        skip_bad(skips);
        read_cell();
        image = (seen == PIECE(image, k) -> image : 0);
        k++
    :: else -> break
    od;
    k = 0
}

/* --- what is judged, wherever a power-up ends: a state that no loss leaves is nobody's */

inline judge() {
    d_step {
        strict = true;
        look(SLOT(0), room[0], true);
        brick = (image == 0 || image > NEW);
        look(SLOT(1), room[1], true);
        brick = (brick && (image == 0 || image > NEW));
        look(RESCUE_SLOT, 3, true);
        broken = broken || (asks(BRICK) && brick) || (asks(OTHERS) && cell[BEYOND] != KEPT) || (asks(NEIGHBOUR) && cell[1 - RECORD] != KEPT) ||
                 (asks(RESCUE) && was_rescue && image != OLD_RESCUE && image != NEW_RESCUE);
        strict = false;
        at = 0; seen = 0; image = 0; maker = 0
    }
}

/* --- edges: what the regions hold, as letters */

byte now0, now1, now2, now3, from0, from1, from2, from3;
bool marked0, marked1, marked2, marked3, first_marks[CELLS];
bool tells; /* edges, where the environment variable EDGES asks for them */

/* e erased, z zeros, x no maker, h header alone, o old, n new, f something else that is whole */
inline name_region(letter, base, capacity, old, new) {
    at = base;
    skip_bad(true);
    read_cell();
    letter = (seen == ERASED -> 'e' : (seen == ZEROS -> 'z' : 'x'));
    look(base, capacity, true);
    letter = (maker -> (image == 0 -> 'h' : (image == old -> 'o' : (image == new -> 'n' : 'f'))) : letter)
}

inline name_all() {
    name_region(now0, SLOT(0), room[0], OLD, NEW);
    name_region(now1, SLOT(1), room[1], OLD, NEW);
    name_region(now2, RESCUE_SLOT, 3, OLD_RESCUE, NEW_RESCUE);
    at = RECORD;
    skip_bad(true);
    read_cell();
    now3 = (seen == OLD_TEXT -> 'o' : (seen == NEW_TEXT -> 'n' : (seen == ERASED -> 'e' : 'x')));
    marked0 = (bad[2] && !first_marks[2]) || (bad[3] && !first_marks[3]) || (bad[4] && !first_marks[4]);
    marked1 = (bad[5] && !first_marks[5]) || (bad[6] && !first_marks[6]) || (bad[7] && !first_marks[7]);
    marked2 = (bad[8] && !first_marks[8]) || (bad[9] && !first_marks[9]) || (bad[10] && !first_marks[10]);
    marked3 = (bad[RECORD] && !first_marks[RECORD]);
    at = 0; seen = 0; image = 0; maker = 0
}

inline remember_start() {
    d_step {
        if
        :: tells -> name_all()
        :: else
        fi;
        from0 = now0 + 128 * marked0; from1 = now1 + 128 * marked1; from2 = now2 + 128 * marked2; from3 = now3 + 128 * marked3;
        now0 = 0; now1 = 0; now2 = 0; now3 = 0; marked0 = 0; marked1 = 0; marked2 = 0; marked3 = 0
    }
}

c_code {
    /* Prints what it has not printed before. Letters are 7 bits wide and have a mark's bit above them. */
    static void edge(int cut, unsigned long long from, unsigned long long to) {
        enum { SIZE = 1 << 16 };
        static unsigned long long known[SIZE][2];
        const unsigned long long key = from << 32 | to, also = 2 + (unsigned)cut;
        unsigned place = (unsigned)((key * 31 + also) * 0x9E3779B97F4A7C15u >> 48);
        for (; known[place][1] && !getenv("TRAIL"); place = (place + 1) % SIZE)
            if (known[place][0] == key && known[place][1] == also) return;
        known[place][0] = key;
        known[place][1] = also;
        printf("edge %s ", cut ? "cut" : "run");
        for (int n = 24; n >= 0; n -= 8) printf("%c", (int)(from >> n & 127));
        for (int n = 24; n >= 0; n -= 8) printf("%d", (int)(from >> n >> 7 & 1));
        printf(" ");
        for (int n = 24; n >= 0; n -= 8) printf("%c", (int)(to >> n & 127));
        for (int n = 24; n >= 0; n -= 8) printf("%d", (int)(to >> n >> 7 & 1));
        printf("\n");
    }
};

bit is_cut;

inline tell_edge(by_loss) {
    d_step {
        is_cut = by_loss;
        if
        :: tells ->
            name_all();
            now0 = now0 + 128 * marked0; now1 = now1 + 128 * marked1; now2 = now2 + 128 * marked2; now3 = now3 + 128 * marked3;
            c_code {
                edge(now.is_cut, (unsigned)now.from0 << 24 | now.from1 << 16 | now.from2 << 8 | now.from3,
                     (unsigned)now.now0 << 24 | now.now1 << 16 | now.now2 << 8 | now.now3);
            }
        :: else
        fi;
        is_cut = 0; from0 = 0; from1 = 0; from2 = 0; from3 = 0;
        now0 = 0; now1 = 0; now2 = 0; now3 = 0; marked0 = 0; marked1 = 0; marked2 = 0; marked3 = 0
    }
}

/* --- operations, each of which may be the last one */

#define AS_STRING(...) #__VA_ARGS__
#define LOSE(what, c) printf(AS_STRING(loss in what of cell %d\n), c); goto off

/* `whole` and `torn` are statements. A loss before the operation is a torn one that did nothing yet, a loss after it one that did everything:
 * `torn` has both among its ends. */
#define OPERATION(what, c, whole, torn) \
    if \
    :: atomic { whole } \
    :: atomic { MAY_LOSE -> torn; LOSE(what, c) } \
    fi

bool ok;

/* An erase that was cut: not begun, done, or in between. A header can outlive its body; then again it may read as the whole. */
#define TORN_ERASE(c) \
    if \
    :: true \
    :: cell[c] != ERASED -> cell[c] = ERASED \
    :: cell[c] != NOISE -> cell[c] = NOISE \
    :: (IS_FIRST(cell[c]) && IS_IMAGE(ID(cell[c])) && cell[c] < UNSURE) || cell[c] == HEADER -> cell[c] = HEADER \
    :: IS_UNSURE && cell[c] >= 16 && cell[c] < UNSURE -> cell[c] = cell[c] + UNSURE \
    fi

/* A program that was cut: `first` stands for its page with the header. */
#define TORN_PROGRAM(c, content, begun) \
    if \
    :: true \
    :: cell[c] = NOISE \
    :: (begun) != NOISE && (begun) != (content) -> cell[c] = begun \
    :: cell[c] = content \
    :: IS_UNSURE && (content) >= 16 -> cell[c] = (content) + UNSURE \
    fi

#define BEGUN(content) (IS_FIRST(content) && IS_IMAGE(ID(content)) -> HEADER : NOISE)

#ifdef DATAFLASH

/* The cell in the same page: pages are {0} {1 2} {3} {4 5} {6} {7 8} {9} {10} {11}. */
#define MATE(c) ((c) % 3 == 1 && (c) < 10 -> (c) + 1 : ((c) % 3 == 2 && (c) < 11 && (c) > 1 -> (c) - 1 : CELLS))

#define TEAR_MATE(c) \
    if \
    :: true \
    :: MATE(c) < CELLS -> cell[MATE(c)] = NOISE \
    :: MATE(c) < CELLS -> cell[MATE(c)] = ERASED \
    :: MATE(c) < CELLS && ((IS_FIRST(cell[MATE(c)]) && IS_IMAGE(ID(cell[MATE(c)]))) || cell[MATE(c)] == HEADER) -> cell[MATE(c)] = HEADER \
    fi

/* A page is rewritten as a whole, mate and all. Pages that an image has to itself are erased and programmed. */
inline write_cell(c, content) {
    if
    :: MATE(c) == CELLS && c != RECORD -> OPERATION(erase, c, cell[c] = ERASED, TORN_ERASE(c))
    :: else
    fi;
    if
    :: OPERATION(program, c, cell[c] = content,
                 if :: TORN_ERASE(c) :: TORN_PROGRAM(c, content, BEGUN(content)) fi; TEAR_MATE(c))
    :: may_fail && faults == 0 -> faults++ /* lost */
    fi
}

/* A body is many pages: what is not written yet is of no image that anybody knows. */
inline write_at(base, first, count) {
    w = 0;
    do
    :: w < count && base + w < CELLS ->
        write_cell(base + w, first + w);
        w++
    :: else -> break
    od;
    w = 0
}

#else

#define FAILS(c, kind) (worn == (c) && (wear == (kind) || wear == 4))

inline erase_block(c) {
    ok = !(FAILS(c, 1) || FAILS(c, 2));
    if
    :: worn == c && wear == 2 -> wear = 5 /* once */
    :: else
    fi;
    if
    :: ok -> OPERATION(erase, c, cell[c] = ERASED, TORN_ERASE(c))
    :: else -> OPERATION(erase, c, skip, skip)
    fi
}

/* The page with the header, or the first one of a piece; then the others. */
inline program_block(c, content) {
    if
    :: FAILS(c, 3) -> OPERATION(program, c, cell[c] = BEGUN(content), TORN_PROGRAM(c, BEGUN(content), BEGUN(content)))
    :: may_fail && faults == 0 -> faults++; cell[c] = BEGUN(content)
    :: !FAILS(c, 3) && (content < 16 || ID(content) > NEW_RESCUE) ->
        OPERATION(program, c, cell[c] = content, TORN_PROGRAM(c, content, NOISE))
    :: !FAILS(c, 3) && content >= 16 && ID(content) <= NEW_RESCUE ->
        OPERATION(program, c, cell[c] = BEGUN(content), TORN_PROGRAM(c, BEGUN(content), BEGUN(content)));
        OPERATION(program, c, cell[c] = content, TORN_PROGRAM(c, content, BEGUN(content)))
    fi
}

#define MARK(c) bad[c] = (FAILS(c, 4) -> bad[c] : true)

inline mark_block(c) {
    if
    :: !IS(no_mark_on_bad_blocks) ->
        OPERATION(mark, c, MARK(c), if :: true :: MARK(c) fi);
        OPERATION(mark, c, MARK(c), if :: true :: MARK(c) fi)
    :: else
    fi
}

inline write_block(c, content) {
    attempts = 3;
    stored = false;
    do
    :: attempts > 0 && !stored ->
        erase_block(c);
        if
        :: ok ->
            program_block(c, content);
            stored = (cell[c] == content || IS(no_verify_of_pages))
        :: else
        fi;
        attempts--
    :: else -> break
    od;
    if
    :: !stored -> mark_block(c)
    :: else
    fi
}

/* The driver ends at the chip's end, not at the slot's. */
inline write_at(base, first, count) {
    w = 0;
    a = base;
    do
    :: w < count && a < CELLS ->
        if
        :: bad[a]
        :: !bad[a] ->
            write_block(a, first + w);
            w = w + stored
        fi;
        a++
    :: else -> break
    od;
    w = 0; a = 0; stored = false; attempts = 0; ok = false
}
#endif

byte w, a, attempts;
bool stored;

/* --- the bootloader */

#define SKIPS !IS(reads_bad_blocks)

byte running, starts;
short target, kept;

/* One read is well or ill as a whole: what could read either way has to be there at one moment only. */
inline may_misread() {
    if
    :: IS_UNSURE -> strict = true
    :: strict = false
    fi
}

/* Reads are one step each: no loss falls into them that would not fall before or after them as well. */
inline check_header(slot) { d_step { look(SLOT(slot), room[slot], SKIPS) } }
inline check_image(slot) {
    atomic {
        may_misread();
        d_step {
            look(SLOT(slot), room[slot], SKIPS);
            strict = false
        }
    }
}

inline choose_slots() {
    target = -1;
    kept = -1;
    check_header(0);
    if :: maker -> kept = 0 :: else -> target = 0 fi;
    check_header(1);
    if :: maker -> kept = 1 :: else -> target = 1 fi;
    if
    :: target < 0 && !IS(trusts_two_headers) ->
        check_image(0);
        if :: image != 0 -> kept = 0 :: else -> target = 0 fi;
        check_image(1);
        if :: image != 0 -> kept = 1 :: else -> target = 1 fi
    :: else
    fi;
    if
    :: target < 0 -> target = (kept == 0 -> 1 : 0)
    :: else
    fi;
    if
    :: target == kept -> kept = 1 - target
    :: else
    fi;
    if
    :: IS(writes_over_the_good_slot) && kept >= 0 -> target = kept; kept = 1 - target
    :: else
    fi;
    printf("target %d kept %d\n", target, kept)
}

inline retire(slot) {
    if
    :: slot >= 0 ->
        check_header(slot);
        if
        :: maker -> write_at(SLOT(slot), ZEROS, 1)
        :: else
        fi
    :: else
    fi
}

#define TARGET 2 + 3 * target

/* Leaves `ok` false where the update is given up. */
inline store_bootloader() {
    choose_slots();
    if
    :: IS(retires_before_writing) -> retire(kept)
    :: else
    fi;
    ok = (length[NEW] <= room[target] || IS(no_bound_of_the_slot));
    if
    :: ok ->
        write_at(TARGET, PIECE(NEW, 0), length[NEW]);
        if
        :: IS(retires_before_verifying) -> retire(kept)
        :: else
        fi;
        check_image(target);
        ok = (image != 0 || (IS(verifies_the_header_alone) && maker))
    :: else
    fi;
    if
    :: ok ->
        if
        :: IS(retires_the_new_slot) -> retire(target)
        :: else -> retire(kept)
        fi;
        ok = true
    :: else
    fi;
    target = 0; kept = 0
}

inline read_record() {
    atomic {
        may_misread();
        d_step {
            at = RECORD;
            skip_bad(SKIPS);
            read_cell();
            strict = false
        }
    }
}

inline store_rescue() {
    read_record();
    if
    :: seen != NEW_TEXT ->
        if
        :: IS(record_before_image) -> write_at(RECORD, NEW_TEXT, 1)
        :: else
        fi;
        write_at(RESCUE_SLOT, PIECE(NEW_RESCUE, 0), length[NEW_RESCUE]);
        d_step { look(RESCUE_SLOT, 3, SKIPS) };
        if
        :: (image != 0 || IS(rescue_not_verified)) && !IS(record_before_image) -> write_at(RECORD, NEW_TEXT, 1)
        :: else
        fi
    :: else
    fi
}

/* Where the first stage finds nothing, the board is dead: `running` stays 0. */
inline first_stage() {
    atomic {
        may_misread();
        d_step {
            look(SLOT(0), room[0], true);
            running = (image == OLD || image == NEW -> image : 0);
            strict = false
        };
        if
        :: running == 0 ->
            may_misread();
            d_step {
                look(SLOT(1), room[1], true);
                running = (image == OLD || image == NEW -> image : 0);
                strict = false
            }
        :: else
        fi;
        image = 0; maker = 0; at = 0; seen = 0
    }
}

/* --- what a board may start with */

inline place(base, id) {
    at = base;
    k = 0;
    do
    :: k < length[id] ->
        skip_bad(true);
        cell[at] = PIECE(id, k);
        at++;
        k++
    :: else -> break
    od;
    at = base;
    skip_bad(true);
    k = 0
}

inline place_any(base, old, new) {
    if
    :: true /* erased */
    :: place(base, old)
    :: place(base, new)
    :: place(base, old); cell[at] = HEADER
    :: place(base, old); cell[at] = ZEROS
    :: at = base; skip_bad(true); cell[at] = NOISE
    fi;
    at = 0
}

/* One block that is bad, wears out or takes a program ill; or none. */
inline choose_damage() {
    if
    :: true
    :: may_fail = true
#ifndef DATAFLASH
    :: select(at : 2 .. 10); bad[at] = true; at = 0
    :: select(worn : 2 .. 10); select(wear : 1 .. 3)
#endif
    fi
}

inline choose_experiment() {
    c_code {
        now.experiment = (unsigned char)experiment_asked_for();
        now.tells = getenv("EDGES") != 0;
        now.asked = (unsigned char)(getenv("ASKED") ? atoi(getenv("ASKED")) : 7);
    };
    if
    :: IS(pushed_on) || IS(shared_page) -> length[OLD] = 3; length[NEW] = 3
    :: IS(fits_one_slot) -> room[0] = 2; length[NEW] = 3
    :: IS(too_long) || IS(no_bound_of_the_slot) -> length[NEW] = 4
    :: IS(no_good_block) -> bad[2] = true; bad[3] = true; bad[4] = true
    :: IS(worn_record) -> worn = RECORD; wear = 1
    :: IS(dead_rescue) -> worn = RESCUE_SLOT; wear = 4
    :: IS(dead_slot) -> select(worn : 2 .. 7); wear = 4
    :: IS(no_mark_on_bad_blocks) || IS(no_verify_of_pages) || IS(reads_bad_blocks) -> select(worn : 2 .. 10); select(wear : 1 .. 3)
    :: IS(unsure) || IS(unsure_once) || IS(wrong_text) /* nothing else is wrong */
    :: else -> choose_damage()
    fi;
    if
    :: IS(pushed_on) -> select(at : 2 .. 7); bad[at] = true; at = 0
    :: else
    fi
}

inline choose_board() {
    atomic {
        cell[BEYOND] = KEPT;
        cell[1 - RECORD] = KEPT;
        choose_experiment();
        if
        :: new_boot = true
        :: new_rescue = true
        :: new_boot = true; new_rescue = true
        fi;
        place_any(SLOT(0), OLD, NEW);
        place_any(SLOT(1), OLD, NEW);
        if
        :: place(RESCUE_SLOT, OLD_RESCUE); cell[RECORD] = OLD_TEXT; was_rescue = true
        :: true
        :: place(RESCUE_SLOT, OLD_RESCUE); cell[at] = HEADER; cell[RECORD] = OLD_TEXT
        fi;
        at = 0;
        k = 0;
        do
        :: k < CELLS -> first_marks[k] = bad[k]; k++
        :: else -> break
        od;
        k = 0;
        judge();
        broken = false;
        if
        :: brick -> goto over /* no board to begin with */
        :: else
        fi
    }
}

/* What nobody remembers. */
inline clear() {
    d_step {
        at = 0; seen = 0; image = 0; maker = 0; k = 0; strict = false; w = 0; a = 0; stored = false; attempts = 0; ok = false;
        target = 0; kept = 0; starts = 0; running = 0
    }
}

init {
    choose_board();
power_up:
    settled = false;
    atomic { /* up to the end of this power-up: only there is a state kept */
        starts = 0;
        if
        :: stays = true
        :: true
        fi;
        remember_start();
        printf("power-up: slots %d %d, rescue %d, record %d\n", cell[SLOT(0)], cell[SLOT(1)], cell[RESCUE_SLOT], cell[RECORD]);
start:
        first_stage();
        if
        :: running == 0 -> broken = asks(BRICK); goto dead
        :: else
        fi;
        if
        :: IS(launches_before_updating) -> goto launch
        :: new_rescue && !IS(launches_before_updating) -> store_rescue()
        :: else
        fi;
        if
        :: new_boot && (running != NEW || IS(wrong_text)) && starts < 8 -> /* a wrong text is never that of the one that runs */
            store_bootloader();
            if
            :: ok -> ok = false; starts++; goto start
            :: else
            fi
        :: else
        fi;
launch:
        skip;
        d_step {
            look(RESCUE_SLOT, 3, true);
            at = RECORD;
            skip_bad(true);
            read_cell();
            settled = ((running == NEW || !new_boot) && starts < 8);
            settled = (settled && (!new_rescue || (image == NEW_RESCUE && seen == NEW_TEXT)))
        };
        tell_edge(0);
        clear();
        judge();
        printf("launched, all as it shall be: %d\n", settled);
        goto ended;
off:
        losses = (IS(unsure_once) -> 1 : 0);
        clear();
        judge();
        tell_edge(1);
ended:
        skip
    };
    if
    :: settled && stays -> goto over
    :: else -> goto power_up
    fi;
dead:
    printf("no bootloader\n");
over:
    skip
}

/* What is asked holds at every moment; and once the power stays, everything is as it shall be before long. */
ltl holds { [] !broken && [] ((stays && asks(LAUNCH)) -> <> settled) }
