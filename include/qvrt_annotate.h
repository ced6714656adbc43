/* qvrt_annotate.h: annotations in a program's own code, for tools to find.
 *
 *   QV_ANNOTATE("request.begin");                    an instruction with a name
 *   QV_ANNOTATE_LITERAL("phase", 3);                 ... and a constant, 0 to 31
 *   QV_ANNOTATE_REGISTER("request.size", bytes);     ... and where a value lives at that instruction
 *
 * Each use leaves one table of version 1.2 with one entry in the section ".ubq_notify_tab" and no
 * instruction of its own (the register form may make the compiler load the value). Addresses are
 * relative, so position-independent images need no relocation. A tool hands the section to
 * __QvZCAParseAndProcessRecords; qvnotes lists it.
 *
 * Names are string literals without quotes, backslashes or percent signs. Where the compiler copies the
 * code (inlining, unrolling), each copy is annotated. C and C++, gcc and clang, x86-64, AT&T assembler
 * syntax. Include it alone: it needs nothing of the library, at build time or at run time. */
#ifndef QVRT_ANNOTATE_H
#define QVRT_ANNOTATE_H

/* The section joins the group of the code around it ("?"), so that the linker drops the annotations of
 * an inline function together with the copies it drops, and is kept by --gc-sections ("R").
 *
 *   990  the instruction     991  table header     992  string table     993  expressions     994  end
 */
#define QV_ANNOTATE_TABLE_(name, place)                 \
  "990:\n"                                              \
  ".pushsection .ubq_notify_tab,\"aR?\",@progbits\n"    \
  "991:\n"                                              \
  ".ascii \".ubq_notify_tab\"\n"                        \
  ".byte 0\n"                                           \
  ".2byte 0x0102, 0, 1, 0\n"                            \
  ".4byte 992f-991b, 993f-992f, 993f-991b, 994f-993f\n" \
  ".8byte 1\n"                                          \
  ".8byte 990b-991b\n"                                  \
  ".4byte 0, 0\n"                                       \
  "992:\n"                                              \
  ".asciz \"" name                                      \
  "\"\n"                                                \
  "993:\n"                                              \
  ".byte 1\n" place                                     \
  "994:\n"                                              \
  ".popsection\n"

/* DWARF's number of the register that the compiler chose for operand 0. */
#define QV_ANNOTATE_IF_(reg, number) ".ifc %q0,%%" reg "\n.byte 0x50+" number "\n.endif\n"
/* clang-format off */
#define QV_ANNOTATE_REGISTER_BYTE_                          \
  QV_ANNOTATE_IF_("rax", "0") QV_ANNOTATE_IF_("rdx", "1")   \
  QV_ANNOTATE_IF_("rcx", "2") QV_ANNOTATE_IF_("rbx", "3")   \
  QV_ANNOTATE_IF_("rsi", "4") QV_ANNOTATE_IF_("rdi", "5")   \
  QV_ANNOTATE_IF_("rbp", "6") QV_ANNOTATE_IF_("rsp", "7")   \
  QV_ANNOTATE_IF_("r8", "8") QV_ANNOTATE_IF_("r9", "9")     \
  QV_ANNOTATE_IF_("r10", "10") QV_ANNOTATE_IF_("r11", "11") \
  QV_ANNOTATE_IF_("r12", "12") QV_ANNOTATE_IF_("r13", "13") \
  QV_ANNOTATE_IF_("r14", "14") QV_ANNOTATE_IF_("r15", "15")
/* clang-format on */

#define QV_ANNOTATE_LITERAL(name, literal) \
  __asm__ volatile(QV_ANNOTATE_TABLE_(name, ".byte 0x30+%c0\n") : : "i"(literal))
#define QV_ANNOTATE(name) QV_ANNOTATE_LITERAL(name, 0)
#define QV_ANNOTATE_REGISTER(name, value)                               \
  __asm__ volatile(QV_ANNOTATE_TABLE_(name, QV_ANNOTATE_REGISTER_BYTE_) \
                   :                                                    \
                   : "r"((unsigned long long)(value)))

#endif /* QVRT_ANNOTATE_H */
