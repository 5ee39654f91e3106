/* SPDX-License-Identifier: MIT */
/* buffstream.c - sends changes of records from one end of a wire to the other, in network order. The wire is a
 * piece of memory here; with a socket only the two callbacks differ. */
#include <eko.h>
#include <string.h>

#define NETWORK_ORDER 1 /* bytes are swapped on x86 */
#define WIRE_CLOSED 2

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
static int32 sendRecords(WIRE* wire)
{
    static const char* const names[] = {"Ada", "Grace"};
    EKO_OUTPUTBUFF out = NULL;
    int32 status = eko_outputBuffCreate(toWire, wire, NETWORK_ORDER, &out);
    for (int32 id = 0; status == 0 && id < 2; ++id) {
        status = eko_outputBuffPutInt32(out, id + 1);
        if (status == 0)
            status = eko_outputBuffPutFloat64(out, 99.5 * (id + 1));
        if (status == 0)
            status = eko_outputBuffPutStringWithLength(out, names[id]);
    }
    if (status == 0)
        status = eko_outputBuffFlush(out); /* what is not flushed is lost with the stream */
    eko_outputBuffDestroy(out);
    return status;
}
/* [send] */

/* [receive] */
static int32 receiveRecords(WIRE* wire)
{
    int32 id;
    double amount;
    char name[16];
    EKO_INPUTBUFF in = NULL;
    int32 status = eko_inputBuffCreate(fromWire, wire, NETWORK_ORDER, &in);
    while (status == 0 && (status = eko_inputBuffGetInt32(in, &id)) == 0) {
        status = eko_inputBuffGetFloat64(in, &amount);
        if (status == 0)
            status =
                eko_inputBuffGetStringWithLength(in, name, sizeof name); /* of a stranger: into a bounded buffer */
        if (status == 0)
            eko_printf("%d: %s %.2f\n", id, name, amount);
    }
    eko_inputBuffDestroy(in);
    return status == WIRE_CLOSED ? 0 : status;
}
/* [receive] */

int main(void)
{
    static WIRE wire;
    if (eko_init() != 0)
        return 1;
    int32 status = sendRecords(&wire);
    eko_printf("%u bytes, beginning with %02x %02x %02x %02x\n", wire.written, wire.bytes[0], wire.bytes[1],
               wire.bytes[2], wire.bytes[3]);
    if (status == 0)
        status = receiveRecords(&wire);
    if (status != 0)
        eko_log_err("the wire broke with status %d\n", status);
    eko_term();
    return status == 0 ? 0 : 1;
}
