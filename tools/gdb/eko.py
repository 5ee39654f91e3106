# SPDX-License-Identifier: MIT
# eko.py - what gdb shows of the eko library inside a program, in a live process or in a core file.
#
#   (gdb) source tools/gdb/eko.py
#   (gdb) eko sems       mutexes and events: who holds what, who waits for what
#   (gdb) eko queues     message queues and their first messages
#   (gdb) eko trace      the trace lines in memory; works without debug information
#   (gdb) eko tags       memory tags, whose they are and how much they hold
#   (gdb) eko globals    the named globals
#   (gdb) help eko       more about each
#
# A copy is built beside libeko.so under the name that gdb looks for. gdb loads it with the library, once a line in
# ~/.gdbinit says that it may:
#
#   add-auto-load-safe-path DIRECTORY-OF-LIBEKO
#
# Installed with the prefix /usr, or by the package libeko-dev, it is where gdb looks and trusts what it finds.
#
# It only reads memory and never calls a function of the program, so that a core file does as well as a process, and
# a thread may be stopped anywhere, in the middle of the library too. What it finds can then be half changed, or
# overwritten: every walk is bounded, and says where and why it ended early.
#
# Fields are found by their names, in the library's debug information, so the script fits either word size; it is to
# be of the same version as the library. gdb runs all scripts in one name space: hence the prefix of every name.

import gdb
import re

EKO_LIST_LIMIT = 100000  # records
EKO_FRAMES = 32          # of each thread
EKO_MESSAGES = 3         # shown of each queue
EKO_STOPPED = "Stopped here"

# Of source/eko/ekouxthreads.cpp, include/eko/sync.h and trace.h: debug information does not have them all.
EKO_SLOTS_PER_ROW = 1024
EKO_SLOT_IN_USE = -2
EKO_SEM_MUTEX = 1
EKO_SEM_EVENT = 2
EKO_TRACE_ENTRIES = 1000


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
    """A variable of one of the modules' unnamed namespaces, wherever the program is stopped."""
    symbol = eko_library().lookup_static_symbol("(anonymous namespace)::" + name)
    if not symbol:
        raise gdb.GdbError("no debug information for libeko: it does not tell of %s" % name)
    return symbol.value()


def eko_exported(name):
    return gdb.lookup_global_symbol(name).value()


def eko_need_library():
    """Ends the command unless the library is started, and has not freed yet what the commands show."""
    eko_need_process()
    if eko_private("rowsFreed") != 0 or eko_exported("eko_inited") <= 0:
        raise gdb.GdbError("the library is not started")


def eko_record(pointer, type_name):
    """What a pointer without a type points to."""
    return pointer.cast(gdb.lookup_type(type_name).pointer()).dereference()


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
# What a command finds it yields: tuples of the noun to count and the cells of a row, and notes, which are strings.


def eko_bounded(walk):
    """What `walk` finds, and a note if it ended early: what comes behind it is still looked at."""
    try:
        yield from walk
    except (EkoCut, gdb.MemoryError) as why:
        yield "%s: %s" % (EKO_STOPPED, why)


def eko_show(columns, nouns, found):
    """Aligned columns, to the right where the title begins with '>', and a total of each noun."""
    lines = [("title", *[title.lstrip(">") for title in columns]), *found]
    rows = [[str(cell) for cell in line] for line in lines if isinstance(line, tuple)]
    widths = [max(map(len, column)) for column in zip(*rows)][1:]
    form = "  ".join("{:%s%d}" % (">" if title.startswith(">") else "<", width)
                     for title, width in zip(columns, widths))
    for line in lines:
        text = line if isinstance(line, str) else form.format(*map(str, line[1:]))
        gdb.write(text.rstrip() + "\n")
    kinds = [row[0] for row in rows]
    gdb.write(", ".join(eko_counted(kinds.count(noun), noun) for noun in nouns))
    complete = not any(isinstance(line, str) and line.startswith(EKO_STOPPED) for line in found)
    gdb.write("\n" if complete else ", incomplete\n")


def eko_handle(pointer):
    return "%#x" % int(pointer)


def eko_text(pointer):
    """The string that starts at a pointer, in one line: what is no visible character of UTF-8 is escaped."""
    if not int(pointer):
        return "(null)"
    try:
        text = pointer.string("utf-8", "backslashreplace").removesuffix("\n")
    except gdb.MemoryError:
        return "(unreadable: %s)" % eko_handle(pointer)
    return "".join(c if c.isprintable() else c.encode("unicode_escape").decode() for c in text)


def eko_counted(n, noun):
    plural = noun + ("es" if noun.endswith("x") else "s")
    return "%d %s" % (n, noun if n == 1 else plural)


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
    def told(name, part=2):  # of a field's bits, elements and offset the offset
        return int(gdb.parse_and_eval("((unsigned*) &_thread_db_%s)[%d]" % (name, part)))

    def word_at(address):
        return int(gdb.parse_and_eval("*(unsigned long*) %#x" % address))

    tags = {}
    try:
        block, place = divmod(int(eko_private("tagTLSkey")), 32)
        first = told("pthread_specific") + block * gdb.lookup_type("long").sizeof
        second = told("pthread_key_data_level2_data") + told("pthread_key_data_data")
        second += place * told("sizeof_pthread_key_data", 0)
        for thread, number in eko_threads().items():
            values = word_at(thread + first)
            if values:
                tags[word_at(values + second)] = number
    except gdb.error:
        pass  # another C library, or no memory of it: the tags are shown without their threads
    return tags


def eko_waited_for(frame):
    """The handle that a waiting call has got: its argument, or where that is optimised out the slot, which it names."""
    sem = frame.read_var("sem")
    return int(frame.read_var("slot") if sem.is_optimized_out else sem)


def eko_waiting():
    """gdb's numbers of the waiting threads by the handle of what they wait for."""
    waiting = {}
    chosen = gdb.selected_thread()
    if not chosen:
        return waiting  # it has ended, and there would be no way back to it
    chosen_frame = gdb.selected_frame()
    for thread in sorted(gdb.selected_inferior().threads(), key=lambda thread: thread.num):
        try:
            thread.switch()
            frame, depth = gdb.newest_frame(), 0
            while frame and depth < EKO_FRAMES and frame.name() not in ("eko_syncEnterExcl", "eko_syncWait"):
                frame, depth = frame.older(), depth + 1
            if frame and depth < EKO_FRAMES:
                waiting.setdefault(eko_waited_for(frame), []).append(str(thread.num))
        except gdb.error:
            pass  # it runs, its stack is damaged, or the handle is optimised out
    chosen.switch()
    chosen_frame.select()
    return waiting


# ---- the commands -----------------------------------------------------------------------------------------------


def eko_sems(_):
    """Mutexes and events: who holds what and how often, who waits for what, which events are signalled.
THREAD is gdb's number of the owner, '-' if it has ended, WAITING those of the threads that wait. In a deadlock
each thread of a ring waits for what the next one holds. Where the table is long: `pipe eko sems | grep held`.
A lost slot is what the creation of neither a mutex nor an event leaves behind."""
    eko_need_library()
    threads, waiting = eko_threads(), eko_waiting()
    rows = eko_private("sem_table")
    for i in range(rows.type.range()[1] + 1):
        if int(rows[i]["entry"]):
            yield from eko_bounded(eko_sems_of_row(rows[i]["entry"], threads, waiting))


def eko_sems_of_row(row, threads, waiting):
    for i in range(EKO_SLOTS_PER_ROW):
        if row[i]["avail"] == EKO_SLOT_IN_USE:
            handle = row[i].address
            noun, *cells = eko_sem(row[i], threads)
            yield noun, eko_handle(handle), *cells, ",".join(waiting.get(int(handle), "-"))


def eko_sem(slot, threads):
    if slot["type"] == EKO_SEM_EVENT:
        return "event", "event", "signalled" if slot["obj"]["e"]["flag"] != 0 else "reset", "-", "-", "-"
    if slot["type"] != EKO_SEM_MUTEX:
        return "lost slot", "none", "lost", "-", "-", "-"
    owner, count = int(slot["obj"]["m"]["id"]), int(slot["obj"]["m"]["count"])
    if count <= 0:
        return "free mutex", "mutex", "free", count, "-", "-"
    return "held mutex", "mutex", "held", count, "%#x" % owner, threads.get(owner, "-")


def eko_tags(_):
    """Memory tags and the figures of their allocators, in bytes.
Special tags are the static one, from which the records of all others come, the global one and the threads'
own, with gdb's number of the thread. A legacy tag has no figures."""
    eko_need_library()
    special = {tag: "thread %d" % number for tag, number in eko_thread_tags().items()}
    special[int(eko_private("tagGlobal"))] = "global"
    yield eko_tag(eko_private("static_list_tag"), "static")
    chain = eko_chain(eko_private("taglisthead"), "t_next")
    yield from eko_bounded(eko_tag(tag, special.get(int(tag.address), "-")) for tag in chain)
    usage = eko_exported("eko_mem_stats")
    limit = int(eko_exported("eko_memlimit"))
    yield ("Large blocks of all tags: %d, highest %d, limit %s"
           % (eko_figure(usage["in_use"]), eko_figure(usage["max_in_use"]), limit or "none"))


def eko_tag(tag, special):
    function = tag["t_fcns"]["alloc_fcn"].format_string(symbols=True)
    found = re.search(r"(\w+)_allocator_alloc", function)
    kind = found[1] if found else "unknown"
    figures = ["0" if kind == "legacy" else "-"] * 4
    if kind in ("block", "list", "stack"):
        state = eko_record(tag["t_allocator"], "%s_ALLOCATOR_ENTRY" % kind.upper())
        figures = [eko_figure(state["mem_info"][what][which])
                   for what in ("bytes", "capacity") for which in ("in_use", "max_in_use")]
    no_mutex = (1 << 8 * tag["t_sem"].type.sizeof) - 1  # EKO_SEM_INVALID
    return ("tag", eko_handle(tag.address), special, kind, *figures,
            eko_handle(tag["t_sem"]) if int(tag["t_sem"]) != no_mutex else "-",
            eko_handle(tag["t_jmpbuf"]) if int(tag["t_jmpbuf"]) else "-")


def eko_figure(value):
    """Figures can fall below 0, and then wrap: what is less than 1 GiB from the top is such a one."""
    wrap = 1 << 8 * value.type.sizeof
    return int(value) - wrap if int(value) > wrap - (1 << 30) else int(value)


def eko_registry():
    """The entries of the registry."""
    eko_need_library()
    entries, count, room = (eko_private("eko_globals_" + name) for name in ("list", "num", "max"))
    if not int(entries) and room > 0:
        raise EkoCut("the registry is lost, since memory ran out when it was to grow")
    if count > room or count > EKO_LIST_LIMIT:
        raise EkoCut("the registry says that it has %d records" % count)
    for i in range(int(count)):
        yield entries[i]


def eko_queues(wanted):
    """Message queues, the newest first, and the first messages of each.
`eko queues N` shows up to N messages of each. Spare records wait for later messages."""
    for entry in eko_registry():
        if eko_text(entry["name"]) == "ekoqueue":
            for node in eko_chain(eko_record(entry["data"], "EKO_QUEUE_GLOBALS")["qList"], "next"):
                queue = eko_record(node["hQ"], "EKO_QUEUE")
                yield from eko_bounded(eko_queue(queue, EKO_MESSAGES if wanted is None else wanted))


def eko_queue(queue, wanted):
    try:
        spare = sum(1 for _ in eko_chain(queue["avail"], "next"))
    except (EkoCut, gdb.MemoryError):
        spare = "damaged"  # the messages are more interesting
    yield ("queue", eko_handle(queue.address), "closed" if int(queue["status"]) & 1 else "open",
           int(queue["count"]), spare, eko_text(queue["name"]))
    for i, message in enumerate(eko_chain(queue["head"], "next")):
        if i == wanted:
            yield "    and more"
            break
        size = eko_counted(int(message["len"]), "byte")
        yield "    msgid %d, %s at %s" % (message["msgid"], size, eko_handle(message["msg"]))


def eko_trace(wanted):
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
        yield "line", eko_text(lines[i])


def eko_globals(_):
    """The named globals of the library and of the program, with their sizes in bytes."""
    for entry in eko_registry():
        yield "record", eko_handle(entry["data"]), int(entry["size"]), eko_text(entry["name"])


# The name, what finds its rows, its columns, what it counts, whether a number may be given.
EKO_COMMANDS = (
    ("sems", eko_sems, ("HANDLE", "KIND", "STATE", ">COUNT", "OWNER", ">THREAD", "WAITING"),
     ("held mutex", "free mutex", "event", "lost slot"), False),
    ("queues", eko_queues, ("HANDLE", "STATE", ">MESSAGES", ">SPARE", "NAME"), ("queue",), True),
    ("trace", eko_trace, ("LINE",), ("line",), True),
    ("tags", eko_tags, ("HANDLE", "SPECIAL", "ALLOCATOR", ">BYTES", ">HIGHEST", ">CAPACITY", ">HIGHEST",
                        "MUTEX", "JUMP BUFFER"), ("tag",), False),
    ("globals", eko_globals, ("ADDRESS", ">SIZE", "NAME"), ("record",), False),
)


class EkoCommand(gdb.Command):
    """One of EKO_COMMANDS."""

    def __init__(self, name, find, columns, nouns, takes_number):
        self.__doc__ = find.__doc__
        self.name, self.find, self.columns, self.nouns = name, find, columns, nouns
        self.takes_number = takes_number
        super().__init__("eko " + name, gdb.COMMAND_DATA)

    def invoke(self, argument, from_tty):
        if argument and not (self.takes_number and argument.isdecimal()):
            raise gdb.GdbError("eko %s takes %s" % (self.name, "a number" if self.takes_number else "no argument"))
        try:
            found = list(eko_bounded(self.find(int(argument) if argument else None)))
        except gdb.error as why:
            raise gdb.GdbError("the library's debug information is not what this script knows: %s" % why)
        eko_show(self.columns, self.nouns, found)


class EkoPrefix(gdb.Command):
    """What the eko library holds in this program."""

    def __init__(self):
        super().__init__("eko", gdb.COMMAND_DATA, prefix=True)

    def invoke(self, argument, from_tty):
        if argument:
            raise gdb.GdbError('there is no command "eko %s"; "help eko" lists those that there are' % argument)
        gdb.execute("help eko")


EkoPrefix()
for eko_command in EKO_COMMANDS:
    EkoCommand(*eko_command)
