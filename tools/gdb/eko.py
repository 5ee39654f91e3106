# eko.py - what gdb shows of the eko library inside a program: its mutexes and events, memory tags, message queues,
# trace lines and named globals, in a live process or in a core file.
#
#   (gdb) source tools/gdb/eko.py
#   (gdb) help eko
#
# A copy is built beside libeko.so under the name that gdb looks for. gdb loads it with the library, once a line in
# ~/.gdbinit says that it may:
#
#   add-auto-load-safe-path DIRECTORY-OF-LIBEKO
#
# It only reads memory and never calls a function of the program, so that a core file does as well as a process, and
# a thread may be stopped anywhere, in the middle of the library too. What it finds can then be half changed, or
# overwritten: every walk is bounded, and says where and why it ended early.
#
# All but `eko trace` need the library's debug information. Fields are found by their names, so the script fits
# either word size; it is to be of the same version as the library.
#
# gdb runs all scripts in one name space: hence the prefix of every name.

import gdb
import re

EKO_LIST_LIMIT = 100000  # records
EKO_TEXT_LIMIT = 4096    # bytes
EKO_MESSAGES = 3         # shown of each queue

# Of source/eko/ekouxthreads.cpp and include/eko/sync.h, as far as debug information does not have them.
EKO_SLOTS_PER_ROW = 1024
EKO_SLOT_IN_USE = -2
EKO_SEM_MUTEX = 1
EKO_SEM_EVENT = 2

EKO_TRACE_ENTRIES = 1000  # of what eko_trace_list points to


class EkoCut(Exception):
    """Why a walk ended early."""


# ---- finding things in the program ----------------------------------------------------------------------------


def eko_need_process():
    if not gdb.selected_inferior().threads():
        raise gdb.GdbError("there is no process and no core file")


def eko_library():
    """The file that the library's debug information belongs to: libeko.so, or the program itself. It is known by a
    variable that no program has as well; what the header declares, the program's debug information has too."""
    symbol = gdb.lookup_static_symbol("(anonymous namespace)::eko_globals_list")
    if symbol:
        return symbol.symtab.objfile
    try:
        gdb.parse_and_eval("&eko_inited")
    except gdb.error:
        raise gdb.GdbError("the program does not have the library, or has no symbols")
    raise gdb.GdbError("no debug information for libeko: it was built without -g, or stripped")


def eko_private(name):
    """A symbol of one of the modules' unnamed namespaces, wherever the program is stopped, or None."""
    return eko_library().lookup_static_symbol("(anonymous namespace)::" + name)


def eko_exported(name):
    return gdb.lookup_global_symbol(name).value()


def eko_variable(name):
    symbol = eko_private(name)
    if not symbol:
        raise gdb.GdbError("no debug information for libeko: it does not tell of %s" % name)
    return symbol.value()


def eko_constant(name, value):
    """A constant of the sources. Debug information may lack it, as the compiled code does: then `value`."""
    symbol = eko_private(name)
    return int(symbol.value()) if symbol else value


def eko_need_library():
    """Ends the command unless the library is started, and has not freed yet what the commands show."""
    eko_need_process()
    if eko_variable("rowsFreed") != 0 or eko_exported("eko_inited") <= 0:
        raise gdb.GdbError("the library is not started")


def eko_record(pointer, type_name):
    """What a pointer without a type points to."""
    return pointer.cast(gdb.lookup_type(type_name).pointer()).dereference()


def eko_memory(address, size):
    return gdb.selected_inferior().read_memory(address, size).tobytes()


def eko_unsigned(address, size):
    return int.from_bytes(eko_memory(address, size), "little")


def eko_chain(first, following):
    """The records of a list, each found through the field `following` of the one before it."""
    seen = set()
    node = first
    while int(node):
        if int(node) in seen:
            raise EkoCut("the list comes back to %s" % eko_handle(node))
        if len(seen) == EKO_LIST_LIMIT:
            raise EkoCut("the list has more than %d records" % EKO_LIST_LIMIT)
        seen.add(int(node))
        after = node[following]
        after.fetch_lazy()  # a record that cannot be read is not handed out
        yield node.dereference()
        node = after


# ---- showing them -----------------------------------------------------------------------------------------------


def eko_handle(pointer):
    return "%#x" % int(pointer)


def eko_text(pointer):
    """The string that starts at a pointer, in one line: what is no visible character of UTF-8 is escaped."""
    if not int(pointer):
        return "(null)"
    data = b""
    try:
        while b"\0" not in data and len(data) < EKO_TEXT_LIMIT:
            address = int(pointer) + len(data)
            data += eko_memory(address, 256 - address % 256)  # not across a page's end: the next may not be there
    except gdb.MemoryError:
        return "(unreadable: %s)" % eko_handle(pointer)
    text, end, _ = data.partition(b"\0")
    text = text.decode("utf-8", "backslashreplace").removesuffix("\n")
    visible = "".join(c if c.isprintable() else c.encode("unicode_escape").decode() for c in text)
    return visible if end else visible + "..."


def eko_counted(n, noun):
    plural = noun + ("es" if noun.endswith("x") else "s")
    return "%d %s" % (n, noun if n == 1 else plural)


class EkoTable:
    """Rows in aligned columns below a header, notes between them, and a total of what was counted. A title that
    begins with '>' makes its column align to the right."""

    def __init__(self, columns, nouns):
        self.right = [title.startswith(">") for title in columns]
        self.lines = [[title.lstrip(">") for title in columns]]  # a row is a list, a note a string
        self.counts = dict.fromkeys(nouns, 0)
        self.complete = True

    def row(self, noun, *cells):
        self.lines.append([str(cell) for cell in cells])
        self.counts[noun] += 1

    def note(self, words):
        self.lines.append(words)

    def walk(self, work, *arguments):
        """Adds what `work` finds, and why it ended if it did so early."""
        try:
            work(self, *arguments)
        except (EkoCut, gdb.MemoryError) as why:
            self.note("Stopped here: %s" % why)
            self.complete = False

    def show(self):
        rows = [line for line in self.lines if isinstance(line, list)]
        widths = [max(map(len, column)) for column in zip(*rows)]
        for line in self.lines:
            if isinstance(line, list):
                line = "  ".join(cell.rjust(width) if right else cell.ljust(width)
                                 for cell, width, right in zip(line, widths, self.right))
            gdb.write(line.rstrip() + "\n")
        total = ", ".join(eko_counted(n, noun) for noun, n in self.counts.items())
        gdb.write(total + ("\n" if self.complete else ", incomplete\n"))


# ---- threads ----------------------------------------------------------------------------------------------------


def eko_threads():
    """gdb's number of each thread by its pthread_t. Without libthread_db gdb does not know any."""
    numbers = {}
    for thread in gdb.selected_inferior().threads():
        try:
            numbers[int.from_bytes(thread.handle(), "little")] = thread.num
        except (gdb.error, TypeError):
            pass
    return numbers


def eko_thread_tags():
    """gdb's number of each thread by the thread's own tag, which is the value of a key in a table of two levels.
    How to read that table the C library says in variables made for debuggers."""
    def described(name):
        return int(gdb.parse_and_eval("&_thread_db_" + name))

    def offset(field):  # behind the field's bits and number of elements
        return eko_unsigned(described(field) + 8, 4)

    tags = {}
    try:
        pointer = gdb.lookup_type("void").pointer().sizeof
        value = eko_unsigned(described("sizeof_pthread_key_data"), 4)
        block, place = divmod(int(eko_variable("tagTLSkey")), 32)
        first = offset("pthread_specific") + block * pointer
        second = offset("pthread_key_data_level2_data") + place * value + offset("pthread_key_data_data")
        for thread, number in eko_threads().items():
            values = eko_unsigned(thread + first, pointer)
            if values:
                tags[eko_unsigned(values + second, pointer)] = number
    except gdb.error:
        pass  # another C library, or no memory of it: the tags are shown without their threads
    return tags


# ---- the commands -----------------------------------------------------------------------------------------------


def eko_sems(table, _):
    """Mutexes and events: who holds what and how often, which events are signalled.
The thread is gdb's number of the owner, '-' if it has ended. A lost slot is what the creation of neither a
mutex nor an event leaves behind."""
    eko_need_library()
    threads = eko_threads()
    rows = eko_variable("sem_table")
    for i in range(rows.type.range()[1] + 1):
        if int(rows[i]["entry"]):
            table.walk(eko_sems_of_row, rows[i]["entry"], threads)


def eko_sems_of_row(table, entry, threads):
    slots = eko_constant("SLOTS_PER_ROW", EKO_SLOTS_PER_ROW)
    in_use = eko_constant("SLOT_IN_USE", EKO_SLOT_IN_USE)
    size = entry.dereference().type.sizeof
    mark = int(entry["avail"].address) - int(entry)
    block = eko_memory(int(entry), slots * size)  # at once, since most slots are free
    for i in range(slots):
        avail = block[i * size + mark:][:2]
        if int.from_bytes(avail, "little", signed=True) == in_use:
            eko_sem(table, entry[i], threads)


def eko_sem(table, slot, threads):
    handle = eko_handle(slot.address)
    if slot["type"] == EKO_SEM_EVENT:
        state = "signalled" if slot["obj"]["e"]["flag"] != 0 else "reset"
        table.row("event", handle, "event", state, "-", "-", "-")
        return
    if slot["type"] != EKO_SEM_MUTEX:
        table.row("lost slot", handle, "none", "lost", "-", "-", "-")
        return
    mutex = slot["obj"]["m"]
    count = int(mutex["count"])
    if count > 0:
        owner = int(mutex["id"])
        table.row("held mutex", handle, "mutex", "held", count, "%#x" % owner, threads.get(owner, "-"))
    else:
        table.row("free mutex", handle, "mutex", "free", count, "-", "-")


def eko_tags(table, _):
    """Memory tags and the figures of their allocators, in bytes.
Special tags are the static one, from which the records of all others come, the global one and the threads'
own, with gdb's number of the thread. A legacy tag has no figures."""
    eko_need_library()
    special = {tag: "thread %d" % number for tag, number in eko_thread_tags().items()}
    special[int(eko_variable("tagGlobal"))] = "global"
    table.walk(eko_tag, eko_variable("static_list_tag"), "static")
    for tag in eko_chain(eko_variable("taglisthead"), "t_next"):
        table.walk(eko_tag, tag, special.get(int(tag.address), "-"))
    usage = eko_exported("eko_mem_stats")
    limit = int(eko_exported("eko_memlimit"))
    table.note("Large blocks of all tags: %s, highest %s, limit %s"
               % (eko_figure(usage["in_use"]), eko_figure(usage["max_in_use"]), limit or "none"))


def eko_tag(table, tag, special):
    function = tag["t_fcns"]["alloc_fcn"].format_string(symbols=True)
    found = re.search(r"(\w+)_allocator_alloc", function)
    kind = found[1] if found else "unknown"
    figures = ["0" if kind == "legacy" else "-"] * 4
    if kind in ("block", "list", "stack"):
        state = eko_record(tag["t_allocator"], "(anonymous namespace)::%s_ALLOCATOR_ENTRY" % kind.upper())
        figures = [eko_figure(state["mem_info"][what][which])
                   for what in ("bytes", "capacity") for which in ("in_use", "max_in_use")]
    no_mutex = (1 << 8 * tag["t_sem"].type.sizeof) - 1  # EKO_SEM_INVALID
    table.row("tag", eko_handle(tag.address), special, kind, *figures,
              eko_handle(tag["t_sem"]) if int(tag["t_sem"]) != no_mutex else "-",
              eko_handle(tag["t_jmpbuf"]) if int(tag["t_jmpbuf"]) else "-")


def eko_figure(value):
    """Figures can fall below 0, and then wrap: what is less than 1 GiB from the top is such a one."""
    wrap = 1 << 8 * value.type.sizeof
    return str(int(value) - wrap if int(value) > wrap - (1 << 30) else int(value))


def eko_registry():
    """The entries of the registry."""
    entries, count, room = (eko_variable("eko_globals_" + name) for name in ("list", "num", "max"))
    if not int(entries) and room > 0:
        raise EkoCut("the registry is lost, since memory ran out when it was to grow")
    if count > room or count > EKO_LIST_LIMIT:
        raise EkoCut("the registry says that it has %d records" % count)
    for i in range(int(count)):
        yield entries[i]


def eko_queues(table, wanted):
    """Message queues, the newest first, and the first messages of each.
`eko queues N` shows up to N messages of each. Spare records wait for later messages."""
    eko_need_library()
    wanted = EKO_MESSAGES if wanted is None else wanted
    for entry in eko_registry():
        if eko_text(entry["name"]) == "ekoqueue":
            for node in eko_chain(eko_record(entry["data"], "EKO_QUEUE_GLOBALS")["qList"], "next"):
                table.walk(eko_queue, eko_record(node["hQ"], "EKO_QUEUE"), wanted)


def eko_queue(table, queue, wanted):
    try:
        spare = sum(1 for _ in eko_chain(queue["avail"], "next"))
    except (EkoCut, gdb.MemoryError):
        spare = "damaged"  # the messages are more interesting
    table.row("queue", eko_handle(queue.address), "closed" if int(queue["status"]) & 1 else "open",
              int(queue["count"]), spare, eko_text(queue["name"]))
    for i, message in enumerate(eko_chain(queue["head"], "next")):
        if i == wanted:
            table.note("    and more")
            break
        size = eko_counted(int(message["len"]), "byte")
        table.note("    msgid %d, %s at %s" % (message["msgid"], size, eko_handle(message["msg"])))


def eko_trace(table, wanted):
    """The memory trace, the newest line last.
`eko trace N` shows the last N lines. Debug information is not needed."""
    eko_need_process()
    try:
        address = gdb.parse_and_eval("&eko_trace_list")  # whatever type it has without debug information
    except gdb.error:
        raise gdb.GdbError("the program does not have the library's trace, or has no symbols")
    lines = address.cast(gdb.lookup_type("char").pointer().pointer().pointer()).dereference()
    if not int(lines):
        raise gdb.GdbError("there is no trace: nothing was traced yet, or the library is stopped")
    # From the oldest on. Entry 1 is left out: once the ring is full, its line is in memory that was freed.
    used = [i for i in [*range(2, EKO_TRACE_ENTRIES), 0] if int(lines[i])]
    for i in used if wanted is None else used[max(len(used) - wanted, 0):]:
        table.row("line", eko_text(lines[i]))


def eko_globals(table, _):
    """The named globals of the library and of the program, with their sizes in bytes."""
    eko_need_library()
    for entry in eko_registry():
        table.row("record", eko_handle(entry["data"]), int(entry["size"]), eko_text(entry["name"]))


# The name, what fills the table, its columns, what it counts, whether a number may be given.
EKO_COMMANDS = (
    ("sems", eko_sems, ("HANDLE", "KIND", "STATE", ">COUNT", "OWNER", ">THREAD"),
     ("held mutex", "free mutex", "event", "lost slot"), False),
    ("tags", eko_tags, ("HANDLE", "SPECIAL", "ALLOCATOR", ">BYTES", ">HIGHEST", ">CAPACITY", ">HIGHEST",
                        "MUTEX", "JUMP BUFFER"), ("tag",), False),
    ("queues", eko_queues, ("HANDLE", "STATE", ">MESSAGES", ">SPARE", "NAME"), ("queue",), True),
    ("trace", eko_trace, ("LINE",), ("line",), True),
    ("globals", eko_globals, ("ADDRESS", ">SIZE", "NAME"), ("record",), False),
)


class EkoPrefix(gdb.Command):
    """What the eko library holds in this program."""

    def __init__(self):
        super().__init__("eko", gdb.COMMAND_DATA, prefix=True)

    def invoke(self, argument, from_tty):
        if argument:
            raise gdb.GdbError('there is no command "eko %s"; "help eko" lists those that there are' % argument)
        for name, fill, *_ in EKO_COMMANDS:
            gdb.write("eko %-8s %s\n" % (name, fill.__doc__.splitlines()[0]))


class EkoCommand(gdb.Command):
    """One of EKO_COMMANDS."""

    def __init__(self, name, fill, columns, nouns, takes_number):
        self.__doc__ = fill.__doc__
        self.name, self.fill, self.columns, self.nouns = name, fill, columns, nouns
        self.takes_number = takes_number
        super().__init__("eko " + name, gdb.COMMAND_DATA)

    def invoke(self, argument, from_tty):
        table = EkoTable(self.columns, self.nouns)
        try:
            table.walk(self.fill, self.wanted(argument))
        except gdb.error as why:
            raise gdb.GdbError("the library's debug information is not what this script knows: %s" % why)
        table.show()

    def wanted(self, argument):
        if not argument:
            return None
        if not self.takes_number or not argument.isdecimal():
            raise gdb.GdbError("eko %s takes %s" % (self.name, "a number" if self.takes_number else "no argument"))
        return int(argument)


EkoPrefix()
for eko_command in EKO_COMMANDS:
    EkoCommand(*eko_command)
