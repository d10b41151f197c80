// Which declarations of libyulotifyd's headers the shared library exports.
//
// The library is compiled with -fvisibility=hidden and
// -fvisibility-inlines-hidden, so a symbol leaves libyulotifyd.so only when
// its declaration carries YULOTIFYD_EXPORT. A class marked YULOTIFYD_EXPORT
// exports its out-of-line members, nested classes, vtable and typeinfo;
// a member that no caller outside the library can reach (a private static
// helper, say) is kept inside with YULOTIFYD_NO_EXPORT. The linker's version
// script (lib/yulotifyd.map) additionally keeps the standard library's
// template instantiations, which the compiler would otherwise export, out of
// the dynamic symbol table. docs/library.md lists what is public.
//
// For code that uses the library the macros change nothing: ELF needs no
// import marking.
#ifndef YULOTIFYD_EXPORT_H_
#define YULOTIFYD_EXPORT_H_

#if defined(__GNUC__) || defined(__clang__)
#define YULOTIFYD_EXPORT __attribute__((visibility("default")))
#define YULOTIFYD_NO_EXPORT __attribute__((visibility("hidden")))
#else
#define YULOTIFYD_EXPORT
#define YULOTIFYD_NO_EXPORT
#endif

#endif  // YULOTIFYD_EXPORT_H_
