; The running sums of a stored image, four bytes at a time (src/Sums.cpp, AddTurn): why they are exact.
;
; `words` and `odd` as in byte_sum.smt2; `weighted` and `weighted_odd` take their values after every word. The plain loop
; does sum1 += byte, then sum2 += sum1, for one byte after the other. Every check is of the opposite: "unsat" is a proof.
(set-logic QF_BV)
(define-fun low ((x (_ BitVec 32))) (_ BitVec 32) (bvand x #x0000FFFF))
(define-fun high ((x (_ BitVec 32))) (_ BitVec 32) (bvlshr x #x00000010))
(define-fun within ((x (_ BitVec 32)) (bound (_ BitVec 32))) Bool
  (and (bvule (low x) bound) (bvule (high x) bound)))
(define-fun short_sum ((x (_ BitVec 32))) (_ BitVec 32) (bvlshr (bvadd x (bvshl x #x00000010)) #x00000010))

(declare-const words (_ BitVec 32))
(declare-const odd (_ BitVec 32))
(declare-const weighted (_ BitVec 32))
(declare-const weighted_odd (_ BitVec 32))
(declare-const sum (_ BitVec 32)) ; lanes of either kind
(declare-const more (_ BitVec 32))

; The even lanes of the weighted sums follow the even lanes, though nothing masks them.
(push)
(assert (not (= (bvsub (bvadd weighted words) (bvshl (bvadd weighted_odd odd) #x00000008))
                (bvadd (bvsub weighted (bvshl weighted_odd #x00000008)) (bvsub words (bvshl odd #x00000008))))))
(check-sat) ; expect unsat
(pop)

; 16 words bring a lane to 255 * 16 at most, and a weighted lane to 255 * 16 * 17 / 2: the last addition has no carry.
(push)
(assert (within sum #x00007788))  ; 255 * 15 * 16 / 2
(assert (within more #x00000FF0)) ; 255 * 16
(assert (not (and (= (low (bvadd sum more)) (bvadd (low sum) (low more)))
                  (= (high (bvadd sum more)) (bvadd (high sum) (high more)))
                  (within (bvadd sum more) #x00008778))))
(check-sat) ; expect unsat
(pop)

; 23 words would be too many.
(push)
(assert (within sum #x0000FC03))  ; 255 * 22 * 23 / 2
(assert (within more #x000016E9)) ; 255 * 23
(assert (not (= (low (bvadd sum more)) (bvadd (low sum) (low more)))))
(check-sat) ; expect sat
(pop)

; The short way to add up two lanes is right for the odd ones, and for pairs of an even and an odd one.
(push)
(assert (within sum #x00001FE0)) ; 2 * 255 * 16
(assert (not (= (short_sum sum) (bvadd (low sum) (high sum)))))
(check-sat) ; expect unsat
(pop)

; From here on lanes are numbers of their own: e0 and e2 add up bytes 0 and 2, o1 and o3 bytes 1 and 3, each with its
; weighted sum. A turn that ended here would make `end1` and `end2` of the sums it began with.
(declare-const start1 (_ BitVec 32))
(declare-const start2 (_ BitVec 32))
(declare-const far (_ BitVec 32)) ; 4 times the words so far times start1
(declare-const e0 (_ BitVec 32))
(declare-const o1 (_ BitVec 32))
(declare-const e2 (_ BitVec 32))
(declare-const o3 (_ BitVec 32))
(declare-const whole (_ BitVec 32)) ; all four weighted sums
(declare-const byte0 (_ BitVec 32))
(declare-const byte1 (_ BitVec 32))
(declare-const byte2 (_ BitVec 32))
(declare-const byte3 (_ BitVec 32))
(define-fun end1 ((a (_ BitVec 32)) (b (_ BitVec 32)) (c (_ BitVec 32)) (d (_ BitVec 32))) (_ BitVec 32)
  (bvadd start1 a b c d))
(define-fun end2 ((f (_ BitVec 32)) (w (_ BitVec 32)) (b (_ BitVec 32)) (c (_ BitVec 32)) (d (_ BitVec 32)))
  (_ BitVec 32)
  (bvsub (bvadd start2 f (bvmul #x00000004 w)) (bvadd b d (bvmul #x00000002 (bvadd c d)))))
(define-fun after0 () (_ BitVec 32) (bvadd (end1 e0 o1 e2 o3) byte0))
(define-fun after1 () (_ BitVec 32) (bvadd after0 byte1))
(define-fun after2 () (_ BitVec 32) (bvadd after1 byte2))
(define-fun after3 () (_ BitVec 32) (bvadd after2 byte3))

; One word more makes of the first sum what the plain loop makes of it.
(push)
(assert (not (= (end1 (bvadd e0 byte0) (bvadd o1 byte1) (bvadd e2 byte2) (bvadd o3 byte3)) after3)))
(check-sat) ; expect unsat
(pop)

; And of the second one.
(push)
(assert (not (= (end2 (bvadd far (bvmul #x00000004 start1))
                      (bvadd whole e0 byte0 o1 byte1 e2 byte2 o3 byte3)
                      (bvadd o1 byte1) (bvadd e2 byte2) (bvadd o3 byte3))
                (bvadd (end2 far whole o1 e2 o3) after0 after1 after2 after3))))
(check-sat) ; expect unsat
(pop)

; With the bytes of a word weighted the other way round it would not.
(push)
(assert (not (= (end2 (bvadd far (bvmul #x00000004 start1))
                      (bvadd whole e0 byte0 o1 byte1 e2 byte2 o3 byte3)
                      (bvadd e0 byte0) (bvadd o1 byte1) (bvadd e2 byte2))
                (bvadd (end2 far whole e0 o1 e2) after0 after1 after2 after3))))
(check-sat) ; expect sat
(pop)
