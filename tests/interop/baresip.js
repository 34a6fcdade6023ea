// Talks to a baresip agent through its ctrl_tcp module (netstring JSON).
//   node baresip.js send PORT COMMAND [PARAMS]   one command; prints its answer
//   node baresip.js watch PORT FILE              every second while it runs: the
//       current call's figures, by baresip's own video_debug and audio_debug,
//       written to FILE as JSON (the last poll that found a call); stops on SIGTERM
// The figures: video and audio, in and out: codec, frames (video: decoded and
// shown / taken from the source), packets (received from the peer / sent), and the
// media encryption in use.
'use strict';
const fs = require('fs');
const net = require('net');

// One command on a fresh connection; resolves with the answer's data text. Events
// baresip pushes on the same connection are skipped.
function command(port, name, params) {
  return new Promise((resolve, reject) => {
    const token = `t${process.pid}${Date.now()}`;
    const body = JSON.stringify(params ? { command: name, params, token } : { command: name, token });
    const socket = net.connect(port, '127.0.0.1');
    let buffer = Buffer.alloc(0);
    const timer = setTimeout(() => { socket.destroy(); reject(new Error(`${name}: no answer`)); }, 2000);
    const done = (err, data) => { clearTimeout(timer); socket.destroy(); err ? reject(err) : resolve(data); };
    socket.on('error', (e) => done(e));
    socket.on('connect', () => socket.write(`${Buffer.byteLength(body)}:${body},`));
    socket.on('data', (chunk) => {
      buffer = Buffer.concat([buffer, chunk]);
      for (;;) {
        const colon = buffer.indexOf(':');
        if (colon < 0 || colon > 9) return;
        const len = Number(buffer.subarray(0, colon).toString());
        if (!Number.isInteger(len) || buffer.length < colon + 1 + len + 1) return;
        const text = buffer.subarray(colon + 1, colon + 1 + len).toString();
        buffer = buffer.subarray(colon + 1 + len + 1);
        let msg;
        try { msg = JSON.parse(text); } catch (e) { continue; }
        if (msg.response && msg.token === token) return done(null, String(msg.data || ''));
      }
    });
  });
}

const num = (text, re) => { const m = re.exec(text); return m ? Number(m[1]) : 0; };
const word = (text, re) => { const m = re.exec(text); return m ? m[1] : ''; };
// Packets received: the RTCP session's members (the peer's sources), summed.
const received = (text) => [...text.matchAll(/rcvd=(\d+)/g)].reduce((n, m) => n + Number(m[1]), 0);

function videoFigures(text) {
  if (!/--- Video stream ---/.test(text)) return null;
  return {
    in: { codec: word(text, /rx: decode: (\S+)/), frames: num(text, /vidisp: .* frames=(\d+)/),
          packets: received(text) },
    out: { codec: word(text, /tx: encode: (\S+)/), frames: num(text, /source: .* frames=(\d+)/),
           packets: num(text, /TX: packets=(\d+)/) },
    encryption: word(text, /menc: (\S+)/),
  };
}

function audioFigures(text) {
  if (!/--- Audio stream ---/.test(text)) return null;
  return {
    in: { codec: word(text, /rx: +decode: (\S+)/), packets: received(text) },
    out: { codec: word(text, /tx: +encode: (\S+)/), packets: num(text, /TX: packets=(\d+)/) },
    encryption: word(text, /menc: (\S+)/),
  };
}

async function watch(port, file) {
  let stop = false;
  for (const sig of ['SIGTERM', 'SIGINT']) process.on(sig, () => { stop = true; });
  // Each kind keeps its last figures: the call may end between the two questions,
  // and a stream that is gone must not wipe what it carried.
  const last = { video: {}, audio: {} };
  while (!stop) {
    try {
      const video = videoFigures(await command(port, 'video_debug'));
      const audio = audioFigures(await command(port, 'audio_debug'));
      if (video) last.video = video;
      if (audio) last.audio = audio;
      if (video || audio) {
        const figures = { at: new Date().toISOString(), video: last.video, audio: last.audio };
        fs.writeFileSync(`${file}.tmp`, JSON.stringify(figures));
        fs.renameSync(`${file}.tmp`, file);
      }
    } catch (e) {
      // No call yet, or the agent is busy: the next poll tells.
    }
    for (let i = 0; i < 10 && !stop; i++) await new Promise((r) => setTimeout(r, 100));
  }
}

async function main() {
  const [what, port, a, b] = process.argv.slice(2);
  if (what === 'send' && port && a) console.log(await command(Number(port), a, b));
  else if (what === 'watch' && port && a) await watch(Number(port), a);
  else throw new Error('usage: baresip.js send PORT COMMAND [PARAMS] | watch PORT FILE');
}

main().catch((e) => {
  console.error(`baresip.js: ${e.message}`);
  process.exit(1);
});
