// FFmpeg 8 for Windows as a library in Node: node_ffmpeg.mjs URL list | URL stamps FRAMES [OPTION=VALUE...] | URL FORMAT FRAMES
// Opens a DirectShow URL. A format: raw frames to the standard output. stamps: the first stamps of each stream.
import { writeSync } from 'node:fs';
import { Dictionary, FormatContext, InputFormat, Packet, getFFmpegInfo } from 'node-av/lib';

const [url, format, wanted, ...more] = process.argv.slice(2); // more: NAME=VALUE of options
const say = (descriptor, text) => writeSync(descriptor, `${text}\n`); // Node's console fails on Wine's pipes
const options = { rtbufsize: '1000M', audio_buffer_size: '50' };
if (format === 'list') options.list_options = 'true';
else if (format !== 'stamps') options.pixel_format = format;
for (const option of more) options[option.split('=')[0]] = option.split('=')[1];
say(2, `FFmpeg ${getFFmpegInfo().version}`);
const context = new FormatContext();
let result = await context.openInput(url, InputFormat.findInputFormat('dshow'), Dictionary.fromObject(options));
if (result < 0) {
    if (format !== 'list') say(2, `open: error ${result}`);
    process.exit(format === 'list' ? 0 : 1);
}
const writeAll = (bytes) => {
    for (let at = 0; at < bytes.length; ) at += writeSync(1, bytes, at);
};
// A packet is what the filter delivered: RGB begins with the lowest line.
const height = format.startsWith('bgr') ? context.streams[0].codecpar.height : 1;
const topDown = (data) => {
    const line = data.length / height;
    return Buffer.concat(Array.from({ length: height }, (_, y) => data.subarray((height - 1 - y) * line, (height - y) * line)));
};
const packet = new Packet();
packet.alloc();
const stamps = new Map();
for (let frames = 0; frames < Number(wanted); ) {
    result = await context.readFrame(packet);
    if (result < 0) {
        say(2, `read: error ${result}`);
        process.exit(1);
    }
    if (!stamps.has(packet.streamIndex)) stamps.set(packet.streamIndex, []);
    stamps.get(packet.streamIndex).push(Number(packet.pts) / 10000);
    if (packet.streamIndex === 0) {
        ++frames;
        if (format !== 'stamps') writeAll(topDown(packet.data));
    }
    packet.unref();
}
if (format === 'stamps')
    for (const [stream, list] of [...stamps].sort((a, b) => a[0] - b[0]))
        say(1, `stream ${stream}: stamps in ms after the first: ${list.slice(1, 7).map((ms) => (ms - list[0]).toFixed(1)).join(' ')}`);
await context.closeInput();
process.exit(0);
