; The byte sum, four bytes at a time (src/Sums.cpp, SumRound): why it is exact.
;
; A round adds up `words`, the words themselves, and `odd`, their odd bytes (1 and 3) in two lanes of 16 bits. The even
; bytes (0 and 2) are taken out at the end: even = words - 256 * odd, two lanes as well. The steps below say what one
; word more does to that. Every check is of the opposite, so that "unsat" is a proof.
(set-logic QF_BV)
(define-fun low ((x (_ BitVec 32))) (_ BitVec 32) (bvand x #x0000FFFF))
(define-fun high ((x (_ BitVec 32))) (_ BitVec 32) (bvlshr x #x00000010))
(define-fun lanes ((x (_ BitVec 32))) (_ BitVec 32) (bvand x #x00FF00FF))
(define-fun within ((x (_ BitVec 32)) (bound (_ BitVec 32))) Bool
  (and (bvule (low x) bound) (bvule (high x) bound)))

(declare-const words (_ BitVec 32))
(declare-const odd (_ BitVec 32))
(declare-const word (_ BitVec 32))
(declare-const sum (_ BitVec 32))   ; lanes of either kind
(declare-const more (_ BitVec 32))
(declare-const bound (_ BitVec 32)) ; 255 times the words so far

; The even bytes of a word are added to `even`, though nothing masks them.
(push)
(assert (not (= (bvsub (bvadd words word) (bvshl (bvadd odd (lanes (bvlshr word #x00000008))) #x00000008))
                (bvadd (bvsub words (bvshl odd #x00000008)) (lanes word)))))
(check-sat) ; expect unsat
(pop)

; After 256 words the lanes take one word more: neither carries into the other.
(push)
(assert (within sum bound))
(assert (bvule bound #x0000FF00))
(assert (= more (lanes more)))
(assert (not (and (= (low (bvadd sum more)) (bvadd (low sum) (low more)))
                  (= (high (bvadd sum more)) (bvadd (high sum) (high more)))
                  (within (bvadd sum more) (bvadd bound #x000000FF)))))
(check-sat) ; expect unsat
(pop)

; After 257 they do not: the bound is no lower than it has to be.
(push)
(assert (within sum #x0000FFFF))
(assert (= more (lanes more)))
(assert (not (= (low (bvadd sum more)) (bvadd (low sum) (low more)))))
(check-sat) ; expect sat
(pop)

; The lanes of a word are its bytes.
(push)
(assert (not (= (bvadd (low (lanes word)) (high (lanes word))
                       (low (lanes (bvlshr word #x00000008))) (high (lanes (bvlshr word #x00000008))))
                (bvadd (bvand word #x000000FF) (bvand (bvlshr word #x00000008) #x000000FF)
                       (bvand (bvlshr word #x00000010) #x000000FF) (bvlshr word #x00000018)))))
(check-sat) ; expect unsat
(pop)
