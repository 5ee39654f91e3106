// eko_format_int.h - integer fields: fetching the argument, laying the field out, writing it.
//
//      spaces | sign | prefix | zeros | digits with separators | spaces
//
// The layout is known in full before the first character is written.
#ifndef EKO_EKO_FORMAT_INT_H
#define EKO_EKO_FORMAT_INT_H

#include "eko_format_ctx.h"

struct IntFormat {
    char sign;            // minus, plus, space; 0 for none
    const char* prefix;   // "0x", "0X", "0"; null for none
    int32 len;            // digits in tmp
    int32 spadlen;        // spaces: before the field when positive, after it when negative
    int32 zpadlen;        // zeros between prefix and digits
    int32 separators;     // characters that all thousands separators take
    char tmp[MAX_DIGITS]; // the digits, last one first
    uint64 uval;          // the magnitude
};

// ---- in eko_format.cpp ----------------------------------------------------------------------------------

// Takes the directive's argument, an integer or a pointer, widened to 64 bits, and lays it out in a field that is
// all zero. The octal prefix changes the directive's precision.
void takeInteger(Directive& ctx, va_list& args, int32 separatorLen, IntFormat& field);

// ---- the field ------------------------------------------------------------------------------------------

template <class C> void putIntegerField(FormatCtx<C>& ctx, const IntFormat& field)
{
    StrCtx<C>& sink = *ctx.sctx;
    putCopies(sink, C(' '), field.spadlen);
    if (field.sign)
        putChar(sink, C(field.sign));
    if (field.prefix)
        putText(sink, field.prefix, lengthOf(field.prefix));
    putCopies(sink, C('0'), field.zpadlen);
    putGrouped(ctx, field.tmp, field.len, field.separators);
    putCopies(sink, C(' '), -field.spadlen);
}

template <class C> void putInteger(FormatCtx<C>& ctx)
{
    IntFormat field = {};
    takeInteger(ctx, ctx.sctx->args, separatorLength(ctx), field);
    if ((ctx.flags & F_POINTER) && field.uval == 0)
        putWord(ctx, 0, TEXT_NIL, lengthToPrint(ctx, TEXT_NIL));
    else
        putIntegerField(ctx, field);
}

#endif
