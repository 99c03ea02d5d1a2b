// The seeds: small scripts that together use every instruction of the machine.

#ifndef ZEPH_FUZZ_SCRIPTRUNSEEDS_H
#define ZEPH_FUZZ_SCRIPTRUNSEEDS_H

inline const char* const script_run_seeds[] = {
    // Arithmetic, rounding, bits.
    R"(
      pushi 7
      pushf 0.5
      add
      pushi 3
      sub
      pushi 4
      mul
      pushi 2
      div
      popg x
      pushg x
      pushi 5
      mod
      pushi 2
      pow
      out
      pushf 2.355
      pushi 2
      rounds
      pushf -0.0006
      pushi 3
      roundf
      cat
      out
      pushi 12
      pushi 10
      bitand
      pushi 1
      bitor
      pushi 255
      bitxor
      bitoc
      pushi 33
      bitsl
      pushi 2
      bitsr
      out
      pushc "secret"
      pushc "ab"
      crypt
      out
    )",
    // Comparison, logic, searches.
    R"(
      pushc "abc"
      pushc "abd"
      cmp
      pushi 0
      lt
      pushc "10"
      pushi 9
      gt
      and
      pushf 1
      pushi 1
      eq
      pushi 1
      pushi 2
      ne
      or
      and
      not
      pushg nothing
      isnull
      ge
      out
      pushi 1
      pushi 2
      le
      out
      pushc "needle"
      pushc "a haystack with a Needle and a needle"
      popg hay
      pushg hay
      in
      pushc "NEEDLE"
      pushg hay
      cin
      pushc "le"
      pushg hay
      ein
      pushc "LE"
      pushg hay
      ecin
      cat
      cat
      cat
      out
    )",
    // Loops, fused instructions, jumps.
    R"(
      storegi i, 0
      storegi two, 2
      jmp test
      again: pushg i
      out
      modgg i, two
      jmp_ne test
      incg n, 3
      cmpgg n, i
      jmp_lt over
      jmp_gt over
      jmp_eq over
      over: incg i, 1
      test: cmpgi i, 10
      jmp_le again
      pushg n
      jmp_ge end
      noop
      end: exit
    )",
    // Variables by name and position.
    R"(
      pushi 5
      popg x
      pushc "x"
      pushn
      out
      pushnc "g.x"
      pushc "y"
      popn
      pushi 7
      popnc "a[2]:b"
      pushnc "a"
      out
      pushs subject
      out
      pushc "new"
      pops subject
      pushs fixed
      pushs unknown
      cat
      out
      spush
      pushg x
      poprnc "s.subject"
      spop
      pushl x
      popl y
      pushc "db"
      pushc "field"
      pushd
      out
      pushdc "db", "field"
      out
      pushi 1
      pushc "db"
      pushc "field"
      popd
      pushi 1
      popdc "", "field"
    )",
    // Arrays, structures, references, circles.
    R"(
      pushi 1
      pushg a
      pushi 1
      elem
      store
      pushc "two"
      pushg a
      pushi 2
      elem
      store
      pushg a
      pushi 2
      elem_readonly
      out
      pushg s
      pushc "name"
      memb
      pushc "value"
      swap
      store
      pushg s
      pushc "NAME"
      memb_readonly
      out
      pushg a
      pushg b
      refer
      pushg a
      pushc "c"
      poprn
      pushg s
      poprg d
      pushg s
      poprl e
      pushg a
      pushg a
      pushi 3
      elem
      refer
      pushg a
      out
      pushg a
      popg copy
      pushg s
      pushc "list"
      memb
      pushi 4
      elem
      pushc "deep"
      memb
      pushg a
      swap
      store
      pushc "a,s,l.copy"
      hide
      pushi 0
      popg a
    )",
    // Functions, by value and by reference, recursive.
    R"(
      pushi 9
      call fib
      out
      pushi 1
      popg v
      pushg v
      pushi 2
      call change
      pop
      pushg v
      out
      pushi 3
      pushg list
      pushi 1
      elem
      store
      pushg list
      call total
      out
      .segment 1
      .function fib(n)
      pushl n
      pushi 2
      lt
      jmp_eq more
      pushl n
      ret
      more: pushl n
      pushi 1
      sub
      call fib
      pushl n
      pushi 2
      sub
      call fib
      add
      ret
      .segment 2
      .function change(v var, by) erroron inherit
      pushl v
      pushl by
      add
      popl v
      pushg refrain
      capture
      pushl v
      out
      retn
      .segment 3
      .function total(list) compress
      pushl list
      pushi 1
      elem
      popl item
      pushnc "l.list[1]"
      pushl item
      add
      ret
    )",
    // Output, captures, errors that let the script go on.
    R"(
      sourcefile "page.zpa"
      lineno 1
      stdoutput 2
      tagerror 62, 1
      erroutput 7
      pushc "  much   room  "
      out_comp
      pushg x
      capture
      pushc "inside"
      out
      pushg y
      capture
      pushg x
      out
      pushi 0
      pushg x
      swap
      elem
      capture_end
      pushc "after"
      out
      capture_end
      pushg x
      pushg y
      cat
      dup
      cat
      out
      pushc "Oops: "
      op_errmsg
      lineno 2
      pushg x
      pushi 0
      elem
      out
      pushi 1
      pushi 2
      pushi 3
      swapn 0, 2
      swap
      out
      out
      out
    )",
    // Calls that leave captures open, texts that grow, and an external function.
    R"(
      pushc ""
      popg s
      storegi i, 0
      again: pushg s
      pushc "line "
      cat
      pushg i
      cat
      popg s
      incg i, 1
      cmpgi i, 20
      jmp_lt again
      pushg s
      call open
      pop
      call open
      out
      pushg s
      out
      pushg s
      call elsewhere
      .segment 1
      .function open()
      pushg x
      capture
      pushl y
      capture
      pushg s
      out
      pushl y
      ret
      .segment 0
      .function elsewhere(a) external
    )",
    // Functions of a library, which call the script's.
    R"(
      tagerror 12, 1
      pushc "twice"
      pushg v
      call call
      out
      pushi 5
      popg v
      pushc "twice"
      pushg v
      call call
      out
      pushg v
      call change
      pop
      pushg v
      call change
      out
      call count
      call count
      add
      out
      pushc "text"
      call write
      popg w
      pushg nothing
      call write
      pushg w
      cat
      out
      .segment 1
      .function twice(n var)
      pushg x
      capture
      pushl n
      pushi 2
      mul
      popl n
      pushl n
      out
      capture_end
      pushl n
      call write
      ret
      .segment 2
      .function again(n var)
      pushc "again"
      pushl n
      call call
      ret
      .segment 0
      .function call(name, argument var) external
      .function change(v var) external
      .function count() external
      .function write(text) external
    )",
    // Numbers of every size as text and back.
    R"(
      pushf 0.1
      pushf 3e9
      cat
      popg t
      pushg t
      pushi 1
      add
      pushc "0x1f"
      pushc "-12"
      add
      pushc "inf"
      mul
      popg n
      pushg n
      pushg n
      sub
      bitoc
      out
      pushg n
      pushc ""
      cat
      out
      pushg t
      pushg n
      eq
      out
    )",
    // Localized texts, and system variables that are computed.
    R"(
      .language "en-US"
      .message hello "Hello, " name "!"
      .message only "English"
      .language de
      .message hello name ", hallo"
      pushc "de"
      pops zeph_language
      pushg x
      poplvnc name
      localize hello
      pushi 3
      poplvnc name
      localizev hello
      popg y
      localize only
      localizev none
      popg zeph_charset
      pushs zeph_config
      pushc "timeout_global"
      memb
      popg t
      pushs zeph_config
      popg all
      pushc "zeph_config:commerce_lookup:x"
      pushn
      pushs dyn_time_remaining
      add
      pops zeph_defaultlanguage
      pushs zeph_language
      pushs dyn_stm_mon
      pushs zeph_sslavailable
      cat
      cmp
      out
    )",
    // Imports in one another, with filters that call functions, and exports.
    R"(
      pushc "f"
      pushc ","
      pushc "a,b"
      pushc "wanted(b) and a gt 1"
      importf done
body: pushc "f"
      pushc ","
      pushc "l.c,v[2]"
      import next
in:   pushg recno
      out
      pushc "g"
      pushc ";"
      pushc "a,b,c"
      export
      pushg b
      isnull
      jmp_ne stop
      import_loop in
      jmp next
stop: import_stop next
next: import_loop body
done: pushc "g"
      pushc ""
      pushc "x"
      pushc "x eq 'one' or 1 +"
      importf over
more: import_loop more
over: exit
      .function wanted(b)
      pushc "f"
      pushc ","
      pushc "l.d,l.e"
      pushc "e eq b"
      importf none
      pushi 1
      ret
none: retn
      .local d, e
      .end
    )",
    // Other scripts.
    R"zpa(
      pushc "start"
      popg x
      pushc "c"
      op_do_file
      pushc "c"
      pushc "text() $ add(x, 2)"
      op_do_function
      pushc "d"
      op_do_file
      out
      tagerror 22, 0
      pushc "c"
      pushc "none(1)"
      op_do_function
      out
      pushc "c"
      pushc "1 (2) (text())"
      op_do_function
      pushc "missing"
      op_do_file
      out
      pushi 3
      call f
      out
      exit
      .function f(n)
      pushl n
      jmp_le end
      pushc "c"
      pushc "lower(l.n)"
      op_do_function
      pop
      pushc "s"
      pushc "f(l.n)"
      op_do_function
      out
end:  pushl n
      ret
      .end
    )zpa",
    // Tasks, which run after the script.
    R"zpa(
      pushc "a text that is long enough to be watched while something is put behind it, so long that"
      popg s
      pushg s
      pushg s
      cat
      popg s
      pushi 1
      pushg v
      pushi 1
      elem
      store
      pushg v
      pushg v
      pushi 2
      elem
      refer
      pushg s
      pushc " and more"
      cat
      async on
      out
      pushc "c"
      op_do_file
      pushi 4
      call f
      out
      pushg v
      out
on:   out
      pushi 3
      call f
      out
      pushc "f"
      pushc ","
      pushc "a,b"
      pushc "f(a)"
      importf done
body: import_loop body
done: exit
      .function f(n)
      pushl n
      jmp_le end
      pushc "kept"
      pushl n
      pushi 1
      sub
      call f
      cat
      ret
end:  async more
      pushl n
      popg x
      pushg x
      capture
      pushc "c"
      pushc "text()"
      op_do_function
      ret
more: pushi 1
      ret
      .end
    )zpa",
};

// A script that all others can run and call.
inline const char* const script_run_other = R"zpa(
      incg x, 1
      cmpgi x, 5
      jmp_ge last
      pushc "s"
      op_do_file
last: async next
      pushg x
      out
next: pushg kept
      capture
      pushg x
      out
      jmp over
      .function text()
      pushc "a text of the other script"
      ret
      .function add(a, b)
      pushl a
      pushl b
      add
      ret
      .function lower(n var)
      pushl n
      pushi 1
      sub
      popl n
      pushc "s"
      pushc "f(l.n)"
      op_do_function
      ret
      .end
over: noop
    )zpa";

#endif
