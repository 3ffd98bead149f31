"""Shows the objects of libzelk_common in gdb as what they mean: messages, entries, deadlines.

gdb loads this file by itself from beside the shared object, or from its own auto-load directory;
docs/debugging.md tells how. Nothing is called in the process and nothing of it is changed, so all
of it works on core files, too.

A process is debugged because something in it is wrong: no number found in its memory is trusted.
Offsets are compared with the segment's size, chains end after a number of steps, and what can not
be read is shown as such. The formats are those of docs/formats.md; maps and strings are walked as
libstdc++ lays them out, which is part of its binary interface.
"""

import array
import socket
import struct
import time

import gdb
import gdb.printing

SHOWN_BYTES = 48  # of a message, key or value
MAX_STEPS = 10000  # along one chain, or over the messages of a queue
MAX_BUCKETS = 1 << 22  # of a table that are looked at
MAX_DEPTH = 128  # of a balanced tree that fits into memory
PIECE = 1 << 16  # bytes that are read at a time

QUEUE_HEAD = struct.Struct("<BIII")
HEAP_HEAD = struct.Struct("<9Qi")
HEAP_LISTS = 80
HEAP_READY = 9693823
BLOCK = struct.Struct("<QQ")
TABLE_HEAD = struct.Struct("<I4xQIII4xQQI4x")
TABLE_READY = 0x2348FAD9
ENTRY = struct.Struct("<QII")
LIST_IDS = 32  # behind the second and the first three members of MachinePool::List_t
TREE_NODE = struct.Struct("<Q3Q")  # colour, parent, left, right


class Damaged(Exception):
    """What was found is not what the class writes."""


def read(address, size):
    try:
        return gdb.selected_inferior().read_memory(address, size).tobytes()
    except (gdb.MemoryError, OverflowError):
        raise Damaged("no memory at %#x" % address) from None


def unpack(form, address):
    return form.unpack(read(address, form.size))


def quoted(data, size):
    """The first bytes of a text of so many as a C string, with dots when there are more."""
    text = "".join(
        "\\" + chr(c) if c in b'"\\' else chr(c) if 32 <= c < 127 else "\\x%02x" % c
        for c in data[:SHOWN_BYTES]
    )
    return '"%s"%s' % (text, "..." if size > SHOWN_BYTES else "")


def quoted_at(address, size):
    return quoted(read(address, min(size, SHOWN_BYTES)), size)


def text_of(string):
    """A std::string: its bytes' address and their number come first."""
    address, size = unpack(struct.Struct("<QQ"), int(string.address))
    return quoted_at(address, size)


def counted(number, noun, plural=None):
    return "%d %s" % (number, noun if number == 1 else plural or noun + "s")


def utc(seconds):
    try:
        return time.strftime("%Y-%m-%d %H:%M:%S UTC", time.gmtime(seconds))
    except (OverflowError, ValueError, OSError):
        return "%d s" % seconds


def dotted(number):
    return socket.inet_ntoa(struct.pack("<I", number & 0xFFFFFFFF))  # stored in network order


def unsigned(value):
    return int(value) & 0xFFFFFFFF


def tree(container):
    """Addresses of the values in a std::map, in order."""
    header = int(container.address) + 8  # behind the comparison
    _, root, node, _ = unpack(TREE_NODE, header)
    (size,) = unpack(struct.Struct("<Q"), header + TREE_NODE.size)
    if root == 0 and size != 0:
        raise Damaged("%d elements without a root" % size)
    for index in range(min(size, MAX_STEPS)):
        if index != 0:
            node = successor(node)
        if node == header:
            raise Damaged("fewer elements than the %d that are counted" % size)
        yield node + TREE_NODE.size
    if size > MAX_STEPS:
        raise Damaged("%d elements, no more are looked at" % size)


def successor(node):
    """The leftmost node on the right, else the first one above that this is left of."""
    _, parent, _, right = unpack(TREE_NODE, node)
    for _ in range(MAX_DEPTH):
        if right != 0:
            node, right = right, unpack(TREE_NODE, right)[2]
            if right == 0:
                return node
        else:
            _, above, _, uncle = unpack(TREE_NODE, parent)
            if uncle != node:
                return parent
            node, parent = parent, above
    raise Damaged("a tree that is too deep")


def tree_size(container):
    return unpack(struct.Struct("<Q"), int(container.address) + 8 + TREE_NODE.size)[0]


class Printer:
    """Turns what goes wrong in summary() and parts() into a text beside what was found before."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        try:
            return self.summary()
        except (Damaged, gdb.error) as error:
            return "%s, damaged: %s" % (self.value.type.strip_typedefs().name, error)

    def parts(self):
        return ()

    def children(self):
        try:
            yield from self.parts()
        except (Damaged, gdb.error) as error:
            yield "damaged", str(error)

    def address(self, member):
        return int(self.value[member])


class ConnectionKey:
    """32 digits: gdb shows a number of 128 bits as a decimal one, in which nothing can be seen."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        return "0x" + self.value.format_string(format="z", raw=True)[2:].zfill(32)


class InternalHead(Printer):
    def summary(self):
        local = "unknown"
        if unsigned(self.value["iSockAddr"]) != 0xFFFFFFFF:
            local = self.end("iSockAddr", "iSockPort")
        fd = int(self.value["iFD"])
        return "%s, peer %s, local %s" % (
            "no descriptor" if fd == -1 else "descriptor %d" % fd,
            self.end("iPeerAddr", "iPeerPort"),
            local,
        )

    def end(self, host, port):
        return "%s:%d" % (dotted(int(self.value[host])), int(self.value[port]))


class Ring:
    """The messages between the two offsets of a queue's header."""

    def __init__(self, head):
        self.begin = head + QUEUE_HEAD.size
        _, self.size, self.reader, self.writer = unpack(QUEUE_HEAD, head)
        if self.size != 0 and (self.reader >= self.size or self.writer >= self.size):
            raise Damaged(
                "offsets %d and %d in a ring of %d bytes" % (self.reader, self.writer, self.size)
            )

    def used(self):
        return (self.writer - self.reader) % self.size if self.size else 0

    def bytes(self, offset, count):
        at = (self.reader + offset) % self.size
        first = min(count, self.size - at)
        return read(self.begin + at, first) + (read(self.begin, count - first) if first < count else b"")

    def messages(self):
        """Offset from the reader and size of each."""
        offset = 0
        while offset < self.used():
            if self.used() - offset < 4:
                raise Damaged("%d bytes behind the last message" % (self.used() - offset))
            (size,) = struct.unpack("<I", self.bytes(offset, 4))
            if size > self.used() - offset - 4:
                raise Damaged("a message of %d bytes where %d are left" % (size, self.used() - offset - 4))
            yield offset + 4, size
            offset += 4 + size

    def count(self):
        count = 0
        for count, _ in enumerate(self.messages(), 1):
            if count == MAX_STEPS:
                return "%d or more messages" % count
        return counted(count, "message")

    def summary(self):
        if self.size == 0:
            return "ring of 0 bytes: its creator is not through, or died"
        text = "ring of %d bytes, %d used, reader at %d, writer at %d" % (
            self.size,
            self.used(),
            self.reader,
            self.writer,
        )
        try:
            return "%s, %s" % (self.count(), text)
        except Damaged as error:
            return "%s, damaged: %s" % (text, error)

    def parts(self):
        for index, (offset, size) in enumerate(self.messages()):
            text = quoted(self.bytes(offset, min(size, SHOWN_BYTES)), size)
            yield "[%d]" % index, "%s %s" % (counted(size, "byte"), text)


class QueueHead(Printer):
    def summary(self):
        return Ring(int(self.value.address)).summary()

    def parts(self):
        return Ring(int(self.value.address)).parts()


class Queue(Printer):
    def ready(self):
        return self.value["m_bReadyFlag"] and self.address("m_pShmHead") != 0

    def summary(self):
        name = "MessageQueue, segment %d, FIFO descriptor %d" % (
            int(self.value["m_iShmID"]),
            int(self.value["m_iFifoFD"]),
        )
        if not self.ready():
            return name + ", not attached"
        return "%s: %s" % (name, Ring(self.address("m_pShmHead")).summary())

    def parts(self):
        if self.ready():
            yield from Ring(self.address("m_pShmHead")).parts()


class Segment:
    """A heap's segment: everything in it lies at an offset below its size."""

    def __init__(self, begin):
        self.begin = begin
        (
            self.size,
            _,
            self.max_bytes,
            _,
            self.block_count,
            _,
            self.reserved,
            self.current,
            self.free,
            ready,
        ) = unpack(HEAP_HEAD, begin)
        if ready != HEAP_READY:
            raise Damaged("a heap that is not initialised")

    def at(self, offset, size):
        if offset + size > self.size:
            raise Damaged("offset %d in a segment of %d bytes" % (offset, self.size))
        return self.begin + offset

    def lists(self):
        """Block size and first offset of each list of free blocks that has one."""
        end = HEAP_LISTS + min(self.max_bytes, 1 << 22)
        for piece in range(HEAP_LISTS, end, PIECE):
            heads = array.array("Q", read(self.begin + piece, min(PIECE, end - piece)))
            if any(heads):
                for index, offset in enumerate(heads):
                    if offset != 0:
                        yield piece - HEAP_LISTS + 8 * (index + 1), offset

    def blocks(self, size, offset):
        """How many blocks the list has, as a text; the links of 8-byte blocks lie outside them."""
        if size == 8:
            return "free blocks, not counted"
        seen = set()
        while offset != 0 and len(seen) < MAX_STEPS:
            if offset in seen:
                raise Damaged("the list of %d bytes turns back to offset %d" % (size, offset))
            seen.add(offset)
            found, following = unpack(BLOCK, self.at(offset, size))
            if found != size:
                raise Damaged("a block of %d bytes in the list of %d" % (found, size))
            offset = following
        return counted(len(seen), "free block") + (" or more" if offset != 0 else "")


class Heap(Printer):
    def segment(self):
        return Segment(self.address("m_pHead"))

    def summary(self):
        if self.address("m_pHead") == 0:
            return "ShmAllocator, not attached"
        segment = self.segment()
        return "ShmAllocator of %d bytes, segment %d: %s handed out, %d bytes free in blocks, %d never carved" % (
            segment.size,
            int(self.value["m_iShmID"]),
            counted(segment.block_count, "block"),
            segment.free,
            segment.size - segment.current,
        )

    def parts(self):
        if self.address("m_pHead") == 0:
            return
        segment = self.segment()
        for size, offset in segment.lists():
            yield counted(size, "byte"), segment.blocks(size, offset)


class Table(Printer):
    """A HashMap. Its bucket array is read in pieces, as far as entries are missing."""

    def attached(self):
        return self.address("m_pHead") != 0

    def head(self):
        head = unpack(TABLE_HEAD, self.address("m_pHead"))
        if head[2] != TABLE_READY:
            raise Damaged("a table that is not initialised")
        return head

    def summary(self):
        if not self.attached():
            return "HashMap, not attached"
        buckets, objects, _, _, _, _, _, longest = self.head()
        return "HashMap of %s in %s, segment %d, longest chain ever %d" % (
            counted(objects, "entry", "entries"),
            counted(buckets, "bucket"),
            int(self.value["m_sAllocator"]["m_iShmID"]),
            longest,
        )

    def display_hint(self):
        return "map"

    def children(self):
        # Keys and values by turns; a fault is a pair, too.
        try:
            for entry, (key, value) in enumerate(self.entries()):
                yield "key %d" % entry, key
                yield "value %d" % entry, value
        except (Damaged, gdb.error) as error:
            yield "key", "damaged"
            yield "value", str(error)

    def entries(self):
        if not self.attached():
            return
        segment = Segment(int(self.value["m_sAllocator"]["m_pHead"]))
        left = self.head()[1]
        for size, offset in self.buckets():
            if left <= 0:
                return
            left -= size
            seen = 0
            while offset != 0:
                if seen == min(size, MAX_STEPS):
                    raise Damaged("a chain that goes on behind its %s" % counted(size, "entry", "entries"))
                offset, key, value = self.entry(segment, offset)
                yield key, value
                seen += 1

    def buckets(self):
        count = min(self.head()[0], MAX_BUCKETS)
        begin = self.address("m_pHead") + TABLE_HEAD.size
        for piece in range(0, 16 * count, PIECE):
            words = array.array("Q", read(begin + piece, min(PIECE, 16 * count - piece)))
            if any(words):
                for size, offset in zip(words[::2], words[1::2]):
                    if offset != 0:
                        yield size & 0xFFFFFFFF, offset

    @staticmethod
    def entry(segment, offset):
        following, key_size, value_size = unpack(ENTRY, segment.at(offset, ENTRY.size))
        key = segment.at(offset + ENTRY.size, key_size + value_size)
        key_text = quoted_at(key, max(key_size - 1, 0))
        value_text = "%s %s" % (counted(value_size, "byte"), quoted_at(key + key_size, value_size))
        return following, key_text, value_text


class Machine(Printer):
    """The members that every machine has; gdb shows those of a derived class beside them."""

    def summary(self):
        return machine_text(self.value)

    def parts(self):
        value = self.value
        if unsigned(value["m_iParentMachineID"]) != 0xFFFFFFFF:
            yield "parent", str(unsigned(value["m_iParentMachineID"]))
        yield "first message", value["m_sInternalHead"]
        yield "from", text_of(value["m_strMsgFrom"])
        yield "machine deadline", utc(machine_deadline(value))
        state = int(value["m_iStateTimeout"])
        if state != 0:
            yield "state deadline", utc(int(value["m_iStateBeginTime"]) + state)
        yield "reserved slots", str(tree_size(value["m_mapReserved"]))


def machine_deadline(value):
    return int(value["m_iMachineBeginTime"]) + (int(value["m_iMachineTimeout"]) or 5)


def machine_text(value):
    number = unsigned(value["m_iID"])
    return "%s %s, state %d" % (
        value.dynamic_type.strip_typedefs().name,
        "without id" if number == 0xFFFFFFFF else number,
        int(value["m_iState"]),
    )


class Pool(Printer):
    def summary(self):
        return "MachinePool of %s, deadlines to look at: %d of machines, %d of states" % (
            counted(tree_size(self.value["m_mapMachines"]), "machine"),
            self.queued("m_mapMachineTimeoutQueue"),
            self.queued("m_mapStateTimeoutQueue"),
        )

    def queued(self, member):
        total = 0
        for item in tree(self.value[member]["m_mapLists"]):
            begin, end = unpack(struct.Struct("<QQ"), item + LIST_IDS)
            total += max(end - begin, 0) // 4
        return total

    def parts(self):
        machine_type = gdb.lookup_type("StateMachine").pointer()
        for item in tree(self.value["m_mapMachines"]):
            number, address = unpack(struct.Struct("<I4xQ"), item)
            yield "[%d]" % number, self.machine(gdb.Value(address).cast(machine_type))

    @staticmethod
    def machine(pointer):
        try:
            machine = pointer.dereference()
            return "%s, deadline %s" % (machine_text(machine), utc(machine_deadline(machine)))
        except (Damaged, gdb.error) as error:
            return "damaged: machine at %#x: %s" % (int(pointer), error)


class ZelkCommon(gdb.printing.PrettyPrinter):
    PRINTERS = {
        "conn_key_t": ConnectionKey,
        "InternalHead_t": InternalHead,
        "MessageQueue::ShmHead": QueueHead,
        "MessageQueue": Queue,
        "ShmAllocator": Heap,
        "HashMap": Table,
        "StateMachine": Machine,
        "MachinePool": Pool,
    }

    def __init__(self):
        self.switches = {name: gdb.printing.SubPrettyPrinter(name) for name in self.PRINTERS}
        super().__init__("libzelk_common", list(self.switches.values()))

    def __call__(self, value):
        # Through typedefs one by one: conn_key_t is one, and may have others above it.
        kind = value.type.unqualified()
        while True:
            if kind.name in self.PRINTERS:
                return self.PRINTERS[kind.name](value) if self.switches[kind.name].enabled else None
            if kind.code != gdb.TYPE_CODE_TYPEDEF:
                return None
            kind = kind.target().unqualified()


gdb.printing.register_pretty_printer(gdb.current_objfile(), ZelkCommon(), replace=True)
