/* SPDX-License-Identifier: MIT */
/* buffstream.c - sends a record from one end of a wire to the other, in network order. The wire is a
 * piece of memory here; with a socket only the two callbacks differ. */
#include <eko.h>
#include <stdbool.h>
#include <string.h>

#define NETWORK_ORDER 1 /* bytes are swapped on x86 */
#define WIRE_CLOSED 2   /* a status of our own */

typedef struct WIRE {
    uint8 bytes[256];
    uint32 written;
    uint32 read;
} WIRE;

/* [callbacks] */
static int32 toWire(const void* ctx, const void* data, uint32 len)
{
    WIRE* wire = (WIRE*)ctx;
    if (len > sizeof wire->bytes - wire->written)
        return WIRE_CLOSED;
    memcpy(wire->bytes + wire->written, data, len);
    wire->written += len;
    return 0;
}

static int32 fromWire(const void* ctx, void* buf, uint32 size, uint32* len, uint32 reserved)
{
    WIRE* wire = (WIRE*)ctx;
    (void)reserved;
    *len = wire->written - wire->read < size ? wire->written - wire->read : size;
    memcpy(buf, wire->bytes + wire->read, *len);
    wire->read += *len;
    return *len > 0 ? 0 : WIRE_CLOSED; /* the end is an error: 0 bytes with success would be asked for again */
}
/* [callbacks] */

/* [send] */
static bool sendRecord(WIRE* wire)
{
    EKO_OUTPUTBUFF out = NULL;
    const bool sent = eko_outputBuffCreate(toWire, wire, NETWORK_ORDER, &out) == 0 &&
                      eko_outputBuffPutInt32(out, 7) == 0 &&      /* the account */
                      eko_outputBuffPutFloat64(out, 99.5) == 0 && /* its balance */
                      eko_outputBuffPutStringWithLength(out, "Ada") == 0 &&
                      eko_outputBuffFlush(out) == 0; /* what is not flushed is lost with the stream */
    eko_outputBuffDestroy(out);
    return sent;
}
/* [send] */

/* [receive] */
static bool receiveRecord(WIRE* wire)
{
    int32 account;
    double balance;
    char name[16];
    EKO_INPUTBUFF in = NULL;
    const bool received =
        eko_inputBuffCreate(fromWire, wire, NETWORK_ORDER, &in) == 0 && eko_inputBuffGetInt32(in, &account) == 0 &&
        eko_inputBuffGetFloat64(in, &balance) == 0 &&
        eko_inputBuffGetStringWithLength(in, name, sizeof name) == 0; /* a longer one is refused */
    if (received) {
        eko_printf("account %d of %s: %.2f\n", account, name, balance);
        eko_printf("then status %d\n", eko_inputBuffGetInt32(in, &account));
    }
    eko_inputBuffDestroy(in);
    return received;
}
/* [receive] */

int main(void)
{
    static WIRE wire;
    if (eko_init() != 0)
        return 1;
    const bool sent = sendRecord(&wire);
    eko_printf("%u bytes, beginning with %02x %02x %02x %02x\n", wire.written, wire.bytes[0], wire.bytes[1],
               wire.bytes[2], wire.bytes[3]);
    const bool received = sent && receiveRecord(&wire);
    if (!received)
        eko_log_err("the wire broke\n");
    eko_term();
    return received ? 0 : 1;
}
