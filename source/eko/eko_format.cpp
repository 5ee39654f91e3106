// The part of the formatter that does not depend on the character type: arguments taken, numbers turned into
// digits, fields laid out. Here once for the narrow and the wide engine.

#include "eko_format.h"

namespace {

// ---- digits ---------------------------------------------------------------------------------------------

// Stores the digits of a value last one first, at least one, and returns how many. BASE_CHUNK is
// BASE ^ CHUNK_DIGITS and fits 32 bits: dividing 64 bits costs a function call where registers have 32, so that
// is done once for many digits, and not at all for a value that fits.
template <uint32 BASE, uint32 BASE_CHUNK, int32 CHUNK_DIGITS>
inline int32 splitDigits(uint64 value, char* out, const char* table)
{
    int32 n = 0;
    while (value > UINT32_MAX) {
        uint32 chunk = static_cast<uint32>(value % BASE_CHUNK);
        value /= BASE_CHUNK;
        for (int32 i = 0; i < CHUNK_DIGITS; ++i, chunk /= BASE)
            out[n++] = table[chunk % BASE];
    }
    uint32 rest = static_cast<uint32>(value);
    do {
        out[n++] = table[rest % BASE];
        rest /= BASE;
    } while (rest > 0);
    return n;
}

int32 decimalDigits(uint64 value, char* out)
{
    return splitDigits<10, 1000000000, 9>(value, out, "0123456789");
}

inline char signFor(const Directive& ctx, bool negative)
{
    if (negative)
        return '-';
    if (ctx.flags & F_PLUS)
        return '+';
    return ctx.flags & F_SPACE ? ' ' : 0;
}

// ---- integers -------------------------------------------------------------------------------------------

// A signed argument, widened to 64 bits by its sign, or by zeros when the directive is unsigned. Narrow is the
// type that the modifier names, Passed the one it is passed as.
template <class Narrow, class UnsignedNarrow, class Passed> uint64 fetchAs(const Directive& ctx, va_list& args)
{
    const Passed arg = va_arg(args, Passed);
    if (ctx.flags & F_UNSIGNED)
        return static_cast<UnsignedNarrow>(arg);
    return static_cast<uint64>(int64{static_cast<Narrow>(arg)});
}

uint64 fetchInteger(const Directive& ctx, va_list& args)
{
    if (ctx.flags & F_POINTER)
        return static_cast<uint64>(int64{reinterpret_cast<intptr_t>(va_arg(args, const void*))}); // by its sign
    switch (ctx.conv) {
    case C_CHAR:
        return fetchAs<int8, uint8, int>(ctx, args);
    case C_SHORT:
        return fetchAs<int16, uint16, int>(ctx, args);
    case C_LONG:
        return fetchAs<long, unsigned long, long>(ctx, args);
    case C_LLONG:
    case C_INTMAX:
        return fetchAs<int64, uint64, int64>(ctx, args);
    case C_SIZE:
        // DELIBERATE: unsigned even for %d. Callers print sizes with %zd. Pinned by Format.integers_depart_from_c.
        return va_arg(args, size_t);
    case C_PTRDIFF:
        // DELIBERATE: extended by its sign even for %u and %x, to 64 bits on every platform: callers print
        // differences with them. Pinned by Format.integers_depart_from_c.
        return static_cast<uint64>(int64{va_arg(args, ptrdiff_t)});
    case C_LDOUBLE:
        // DELIBERATE: takes no argument, so the next directive gets this one's; callers' formats are written
        // for that. Pinned by Format.integers_depart_from_c.
        return 0;
    case C_DEFAULT:
        break;
    }
    return fetchAs<int32, uint32, int>(ctx, args);
}

inline bool isNegative(const Directive& ctx, uint64 value)
{
    return !(ctx.flags & F_UNSIGNED) && ctx.conv != C_SIZE && static_cast<int64>(value) < 0;
}

int32 digitsOf(const Directive& ctx, uint64 value, char* out)
{
    const char* const table = ctx.flags & F_UPPER ? "0123456789ABCDEF" : "0123456789abcdef";
    switch (ctx.base) {
    case 8:
        return splitDigits<8, 0x40000000, 10>(value, out, table);
    case 16:
        return splitDigits<16, 0x10000000, 7>(value, out, table);
    default:
        return splitDigits<10, 1000000000, 9>(value, out, table);
    }
}

// Zero never has a prefix. The octal one is a digit, so it counts against the precision.
void choosePrefix(Directive& ctx, IntFormat& field)
{
    if (!(ctx.flags & (F_ALT | F_POINTER)) || field.uval == 0)
        return;
    if (ctx.base == 16) {
        field.prefix = ctx.flags & F_UPPER ? "0X" : "0x";
    } else if (ctx.base == 8) {
        field.prefix = "0";
        // DELIBERATE: a precision of 0 thereby becomes none, so that %0#6.0o pads with zeros. Callers rely on
        // the width being filled that way. Pinned by Format.integers_depart_from_c.
        if (ctx.precision != NO_PRECISION)
            --ctx.precision;
    }
}

void layOutPadding(const Directive& ctx, IntFormat& field)
{
    // DELIBERATE: separators count against the precision here, and again beside it in the width, so a grouped
    // field can come out shorter than its width. Callers' columns rely on it.
    // Pinned by FormatLocale.groups_digits_and_counts_separators_against_the_precision.
    const int64 zeros = int64{ctx.precision} - field.separators - field.len;
    field.zpadlen = zeros > 0 ? static_cast<int32>(zeros) : 0;

    const int64 prefixLen = field.prefix ? static_cast<int64>(lengthOf(field.prefix)) : 0;
    const int32 digits = ctx.precision > field.len ? ctx.precision : field.len;
    field.spadlen = paddingTo(ctx, prefixLen + (field.sign ? 1 : 0) + field.separators + digits);

    if (ctx.flags & F_MINUS) {
        field.spadlen = -field.spadlen;
    } else if ((ctx.flags & F_ZERO) && ctx.precision == NO_PRECISION) {
        field.zpadlen = field.spadlen;
        field.spadlen = 0;
    }
}

void layOutInteger(Directive& ctx, uint64 value, int32 separatorLen, IntFormat& field)
{
    const bool negative = isNegative(ctx, value);
    field.uval = negative ? 0 - value : value; // unsigned: the lowest value has no positive twin
    if (!(ctx.flags & F_UNSIGNED))
        field.sign = signFor(ctx, negative);
    field.len = digitsOf(ctx, field.uval, field.tmp);
    choosePrefix(ctx, field);
    if (ctx.precision == 0 && field.uval == 0)
        field.len = 0;
    field.separators = separatorsFor(field.len, separatorLen);
    layOutPadding(ctx, field);
}

// ---- floats ---------------------------------------------------------------------------------------------

constexpr int32 DEFAULT_PRECISION = 6;
constexpr int32 MAX_FRACTION_DIGITS = 19;
constexpr int32 MAX_EXPONENT_DIGITS = 3;

constexpr uint64 POWERS_OF_10[MAX_FRACTION_DIGITS + 1] = {
    1,
    10,
    100,
    1000,
    10000,
    100000,
    1000000,
    10000000,
    100000000,
    1000000000,
    10000000000,
    100000000000,
    1000000000000,
    10000000000000,
    100000000000000,
    1000000000000000,
    10000000000000000,
    100000000000000000,
    1000000000000000000,
    10000000000000000000u,
};

long double fetchFloat(const Directive& ctx, va_list& args)
{
    if (ctx.conv == C_LDOUBLE)
        return va_arg(args, long double);
    return static_cast<long double>(va_arg(args, double));
}

// "nan" or "inf" for a value that is no number, else null.
const char* wordFor(const Directive& ctx, long double value)
{
    const bool upper = ctx.flags & F_UPPER;
    if (value != value)
        return upper ? "NAN" : "nan";
    if (value != 0.0L && value + value == value)
        return upper ? "INF" : "inf";
    return nullptr;
}

// Carries a fraction that was rounded up to 1, and an integer part that is 10 into the exponent. It is 10 after
// a carry, and also when the division by the power of ten was rounded up to it.
void carry(FltFormat& field, uint64 one)
{
    if (field.fracpart >= one) {
        ++field.intpart;
        field.fracpart = 0;
    }
    if (field.estyle && field.intpart == 10) {
        field.intpart = 1;
        ++field.exponent;
    }
}

// False when the integer part does not fit.
bool splitValue(Directive& ctx, FltFormat& field, long double value)
{
    // DELIBERATE: the digits of a larger precision are not printed, and not counted. Callers rely on getting
    // no digits that the arithmetic does not have. Pinned by Format.floats_depart_from_c.
    if (ctx.precision > MAX_FRACTION_DIGITS)
        ctx.precision = MAX_FRACTION_DIGITS;
    long double u = value < 0.0L ? -value : value;
    if (field.estyle)
        u /= power_of_10(field.exponent);
    field.intpart = cast_double(u);
    // DELIBERATE: the whole call fails, it does not print such a value in another way. Callers rely on -1 as
    // the sign of a value that is out of range. Pinned by Format.floats_depart_from_c.
    // A long double so small that its power of ten is 0 comes out as infinite here, and fails like that.
    if (field.intpart == UINT64_MAX)
        return false;
    const uint64 one = POWERS_OF_10[ctx.precision];
    // DELIBERATE: a half goes up, not to the even digit. Callers rely on 0.125 being 0.13.
    // Pinned by Format.floats_depart_from_c.
    field.fracpart = round_float((u - static_cast<long double>(field.intpart)) * static_cast<long double>(one));
    carry(field, one);
    return true;
}

// Takes the value apart in the directive's style.
bool splitInStyle(Directive& ctx, FltFormat& field, long double value)
{
    if (!(ctx.flags & (F_GSTYLE | F_ESTYLE)))
        return splitValue(ctx, field, value);

    const bool general = ctx.flags & F_GSTYLE;
    if (general) {
        --ctx.precision; // counted digits before and behind the point; one is before it in exponent style
        field.omitzeros = ctx.flags & F_ALT ? 0 : 1;
    }
    field.estyle = 1;
    field.exponent = get_exponent(value);
    if (!splitValue(ctx, field, value))
        return false;
    // Only now is the exponent final: rounding may have raised it.
    if (!general || ctx.precision + 1 <= field.exponent || field.exponent < -4)
        return true;
    ctx.precision -= field.exponent;
    field.estyle = 0;
    return splitValue(ctx, field, value);
}

// The letter, the sign and at least two digits.
void layOutExponent(const Directive& ctx, FltFormat& field)
{
    int32 rest = field.exponent < 0 ? -field.exponent : field.exponent;
    int32 n = 0;
    // DELIBERATE: of four digits, which only a long double has, the first is lost. Callers rely on exponents
    // of at most five characters. Pinned by Format.floats_depart_from_c.
    do {
        field.econvert[n++] = static_cast<char>('0' + rest % 10);
        rest /= 10;
    } while (n < 2 || (rest > 0 && n < MAX_EXPONENT_DIGITS));
    field.econvert[n++] = field.exponent < 0 ? '-' : '+';
    field.econvert[n++] = ctx.flags & F_UPPER ? 'E' : 'e';
    field.elen = n;
}

void layOutFraction(Directive& ctx, FltFormat& field)
{
    field.flen = field.fracpart > 0 ? decimalDigits(field.fracpart, field.fconvert) : 0;
    field.leadfraczeros = ctx.precision - field.flen;
    if (!field.omitzeros)
        return;
    if (field.flen == 0) {
        field.omitcount = ctx.precision;
        field.leadfraczeros = 0;
    } else {
        while (field.fconvert[field.omitcount] == '0')
            ++field.omitcount;
    }
    ctx.precision -= field.omitcount;
}

void layOutDigits(Directive& ctx, FltFormat& field)
{
    if (field.estyle)
        layOutExponent(ctx, field);
    field.ilen = decimalDigits(field.intpart, field.iconvert);
    layOutFraction(ctx, field);
}

// ---- the count ------------------------------------------------------------------------------------------

template <class Int> void storeAs(size_t count, va_list& args)
{
    *va_arg(args, Int*) = static_cast<Int>(count);
}

} // namespace

// ---- for both engines -----------------------------------------------------------------------------------

void takeInteger(Directive& ctx, va_list& args, int32 separatorLen, IntFormat& field)
{
    layOutInteger(ctx, fetchInteger(ctx, args), separatorLen, field);
}

bool takeFloat(Directive& ctx, va_list& args, FltFormat& field, const char** word)
{
    const long double value = fetchFloat(ctx, args);
    // DELIBERATE: decided by comparing, so negative zero and NaN have no minus. Callers compare texts and rely
    // on one zero. Pinned by Format.floats_depart_from_c.
    field.sign = signFor(ctx, value < 0.0L);
    *word = wordFor(ctx, value);
    if (*word)
        return true;
    if (ctx.precision == NO_PRECISION)
        ctx.precision = DEFAULT_PRECISION;
    if ((ctx.flags & F_GSTYLE) && ctx.precision == 0)
        ctx.precision = 1;
    if (!splitInStyle(ctx, field, value))
        return false;
    layOutDigits(ctx, field);
    return true;
}

void storeCount(const Directive& ctx, size_t count, va_list& args)
{
    switch (ctx.conv) {
    case C_DEFAULT:
        return storeAs<int32>(count, args);
    case C_CHAR:
        return storeAs<int8>(count, args);
    case C_SHORT:
        return storeAs<int16>(count, args);
    case C_LONG:
        return storeAs<long>(count, args);
    case C_LLONG:
    case C_INTMAX:
        return storeAs<int64>(count, args);
    case C_SIZE:
        return storeAs<size_t>(count, args);
    case C_PTRDIFF:
        return storeAs<ptrdiff_t>(count, args);
    case C_LDOUBLE:
        return; // DELIBERATE: takes no argument, as %Ld. Pinned by Format.integers_depart_from_c.
    }
}
