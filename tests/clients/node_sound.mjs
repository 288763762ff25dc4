// node_sound.mjs: records sound with FFmpeg 8 and tells by how much its samples are behind its stamps, as they come and
// through aresample=async=1. What a player hears is the count of samples, what it shows follows the stamps.
import { writeSync } from 'node:fs';
import { Decoder, Demuxer, FilterAPI } from 'node-av/api';
import { getFFmpegInfo } from 'node-av/lib';

const say = (text) => writeSync(1, `${text}\n`); // Node's console fails on Wine's pipes
say(`FFmpeg ${getFFmpegInfo().version}`);
const input = await Demuxer.open('video=Kestra Capture Video:audio=Kestra Capture Audio', {
    format: 'dshow',
    options: { rtbufsize: '1000M', audio_buffer_size: '50' },
});
const sound = input.audio();
const decoder = await Decoder.create(sound);
const filter = FilterAPI.create('aresample=async=1');
const line = { 'as it comes': [0, null, 0], 'aresample=async=1': [0, null, 0] };
const count = (name, frame, timeBase) => {
    const entry = line[name], ms = (1000 * Number(frame.pts) * timeBase.num) / timeBase.den;
    entry[1] ??= ms;
    entry[2] = ms - entry[1] - entry[0] / 48; // stamp of this block against the samples before it
    entry[0] += frame.nbSamples;
};
let blocks = 0;
for await (const packet of input.packets()) {
    if (packet === null || blocks >= 60) break;
    if (packet.streamIndex !== sound.index) continue;
    for (const frame of await decoder.decodeAll(packet)) {
        if (frame === null) continue;
        ++blocks;
        count('as it comes', frame, frame.timeBase ?? sound.timeBase);
        for (const filtered of await filter.processAll(frame)) count('aresample=async=1', filtered, filtered.timeBase);
    }
}
for (const [name, [samples, , late]] of Object.entries(line))
    say(`${name}: ${samples} samples, the last block's stamp is ${late.toFixed(1)} ms after the samples before it`);
process.exit(0);
