"""Saves one picture of the first card with a signal as a PNG file, through ctypes and nothing else:

    python grab.py [picture.png]

For 64-bit Python on Windows. tarnis.dll is looked for beside this file, then in ../bin.
"""
import ctypes
import os
import struct
import sys
import zlib

VIDEO = 0
SUCCESS = 0
YUV422_8 = 1


class CameraStatus(ctypes.Structure):
    _pack_ = 1
    _fields_ = [
        ("videoMode", ctypes.c_uint32),
        ("interlaced", ctypes.c_uint32),
        ("frameRate", ctypes.c_uint8),
        ("reserved", ctypes.c_uint8),
        ("width", ctypes.c_uint16),
        ("height", ctypes.c_uint16),
        ("formatByte", ctypes.c_uint8),
        ("signalFlags", ctypes.c_uint8),
    ]


class CameraData(ctypes.Structure):
    _pack_ = 1
    _fields_ = [
        ("outputSelector", ctypes.c_uint32),
        ("outputParameter", ctypes.c_uint32),
        ("status", CameraStatus),
        ("extra", ctypes.c_uint32),
    ]


class DeviceEnumData(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_uint32),
        ("slotValue", ctypes.c_uint32),
        ("interfaceDetail", ctypes.c_void_p),
        ("slotText", ctypes.c_wchar_p),
    ]


def load_library():
    here = os.path.dirname(os.path.abspath(__file__))
    for folder in (here, os.path.join(here, "..", "bin")):
        path = os.path.join(folder, "tarnis.dll")
        if os.path.exists(path):
            library = ctypes.CDLL(path)
            break
    else:
        sys.exit("grab.py: tarnis.dll is neither beside this file nor in ../bin")
    # Pointers are 64 bits wide: without these lines ctypes would cut them to 32. Result codes are 32 bits.
    port, u32 = ctypes.c_int8, ctypes.c_uint32
    handle, data = ctypes.c_void_p, ctypes.POINTER(CameraData)
    for name, result, arguments in (
        ("TARNIS_EnumOpen", ctypes.c_void_p, []),
        ("TARNIS_EnumNext", u32, [ctypes.c_void_p, ctypes.POINTER(DeviceEnumData)]),
        ("TARNIS_EnumClose", None, [ctypes.c_void_p]),
        ("TARNIS_InitByHandle", handle, [ctypes.c_void_p]),
        ("TARNIS_Done", u32, [handle]),
        ("TARNIS_GetDMAAccess", u32, [handle, port]),
        ("TARNIS_ReleaseDMAAccess", u32, [handle, port]),
        ("TARNIS_IsCameraConnected", u32, [handle, port, ctypes.POINTER(ctypes.c_uint8)]),
        ("TARNIS_SnapFrames", u32, [handle, port, data, ctypes.c_void_p, u32, ctypes.POINTER(u32)]),
        (
            "TARNIS_Decode",
            u32,
            [data, ctypes.c_void_p, ctypes.c_void_p, ctypes.POINTER(ctypes.c_int32), u32, ctypes.c_void_p, ctypes.c_void_p],
        ),
    ):
        function = getattr(library, name)
        function.restype, function.argtypes = result, arguments
    return library


def open_card_with_signal(library):
    """The handle of the first card with a signal, or None."""
    cards = library.TARNIS_EnumOpen()
    if not cards:
        return None
    found = None
    card = DeviceEnumData(size=ctypes.sizeof(DeviceEnumData))
    while found is None and library.TARNIS_EnumNext(cards, ctypes.byref(card)) == SUCCESS:
        opened = library.TARNIS_InitByHandle(card.interfaceDetail)
        if not opened:
            continue
        connected = ctypes.c_uint8()
        if library.TARNIS_IsCameraConnected(opened, VIDEO, ctypes.byref(connected)) == SUCCESS and connected.value:
            print("card:", card.slotText or "(no name)")
            found = opened
        else:
            library.TARNIS_Done(opened)
    library.TARNIS_EnumClose(cards)
    return found


def snap(library, card):
    """One frame as (width, height, RGB bytes)."""
    data = CameraData(outputSelector=YUV422_8)
    size = ctypes.c_uint32()
    # Without a buffer the call prepares the card and says how large a frame is; its result is 1 then, on purpose.
    library.TARNIS_SnapFrames(card, VIDEO, ctypes.byref(data), None, 0, ctypes.byref(size))
    if size.value == 0:
        raise RuntimeError("the card cannot be prepared")
    raw = ctypes.create_string_buffer(size.value)
    code = library.TARNIS_SnapFrames(card, VIDEO, ctypes.byref(data), raw, size, ctypes.byref(size))
    if code != SUCCESS:
        raise RuntimeError(f"no frame (result {code})")
    stride = ctypes.c_int32()
    library.TARNIS_Decode(ctypes.byref(data), raw, None, ctypes.byref(stride), 2, None, None)  # asks for the stride
    image = ctypes.create_string_buffer(stride.value * data.status.height)
    code = library.TARNIS_Decode(ctypes.byref(data), raw, image, ctypes.byref(stride), 2, None, None)
    if code != SUCCESS:
        raise RuntimeError(f"the frame cannot be decoded (result {code})")
    return data.status.width, data.status.height, rgb_of(image.raw, stride.value, data.status.width, data.status.height)


def rgb_of(image, stride, width, height):
    """Lines of B, G, R, each padded to the stride, as R, G, B without a gap."""
    rgb = bytearray(width * 3 * height)
    for y in range(height):
        line, at = image[y * stride : y * stride + width * 3], y * width * 3
        for channel in range(3):
            rgb[at + channel : at + width * 3 : 3] = line[2 - channel :: 3]
    return bytes(rgb)


def png_of(width, height, rgb):
    """The bytes of a PNG file."""

    def chunk(kind, content):
        return struct.pack(">I", len(content)) + kind + content + struct.pack(">I", zlib.crc32(kind + content))

    lines = b"".join(b"\0" + rgb[y * width * 3 : (y + 1) * width * 3] for y in range(height))
    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(lines)) + chunk(b"IEND", b"")


def main():
    path = sys.argv[1] if len(sys.argv) > 1 else "picture.png"
    library = load_library()
    card = open_card_with_signal(library)
    if not card:
        sys.exit("grab.py: there is no card with a signal")
    try:
        if library.TARNIS_GetDMAAccess(card, VIDEO) != SUCCESS:
            sys.exit("grab.py: another program grabs this card")
        try:
            width, height, rgb = snap(library, card)
        finally:
            library.TARNIS_ReleaseDMAAccess(card, VIDEO)
    finally:
        library.TARNIS_Done(card)
    with open(path, "wb") as file:
        file.write(png_of(width, height, rgb))
    print(f"{path}: {width} x {height}")


if __name__ == "__main__":
    main()
