// Chromium talking to itself, for the lossy-network benchmark: two RTCPeerConnections
// in one page of the system's headless Chromium (fake camera at 640x480 and 15 fps,
// fake microphone), one codec after the other, media flowing one way (a -> b) for
// --seconds each, then the figures from getStats() and from the page's <video>.
//   node chromium_pair.js [--seconds S] [--codecs H264,VP8] [--profile DIR]
// One line per codec:
//   RESULT codec=H264 ok=1 key=value ...      (ok=0 why=... when it could not run)
// The page is served from 127.0.0.1 (a secure context for getUserMedia); the
// network namespace, and the loss in it, are the caller's.
'use strict';
const fs = require('fs');
const http = require('http');
const os = require('os');
const path = require('path');
// puppeteer-core is installed once, for the browser test (scripts/npm-deps.sh).
const puppeteer = require(require.resolve('puppeteer-core', {
  paths: [path.join(__dirname, '../../tests/browser')],
}));

function args() {
  const a = { seconds: 15, codecs: 'H264,VP8', profile: '' };
  const argv = process.argv.slice(2);
  for (let i = 0; i < argv.length; i += 2) {
    const key = argv[i].replace(/^--/, '');
    if (!(key in a) || argv[i + 1] === undefined) throw new Error(`bad argument ${argv[i]}`);
    a[key] = key === 'seconds' ? Number(argv[i + 1]) : argv[i + 1];
  }
  if (!(a.seconds >= 1 && a.seconds <= 600)) throw new Error('--seconds: 1..600');
  return a;
}

// Runs in the page. Returns the figures of one codec, or { why } when it could not run.
const PAGE = `<!doctype html><meta charset="utf-8"><title>pair</title>
<video id="v" autoplay muted playsinline width="640" height="480"></video>
<audio id="a" autoplay></audio>
<script>
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
function median(v) { if (!v.length) return -1; v = v.slice().sort((x, y) => x - y); return v[Math.floor(v.length / 2)]; }
function p95(v) { if (!v.length) return -1; v = v.slice().sort((x, y) => x - y); return v[Math.min(v.length - 1, Math.floor(v.length * 0.95))]; }

async function runCodec(codec, seconds) {
  const caps = RTCRtpSender.getCapabilities('video').codecs;
  const wanted = caps.filter((c) => c.mimeType.toLowerCase() === 'video/' + codec.toLowerCase());
  if (!wanted.length) return { why: codec + ' not offered by this Chromium' };
  const stream = await navigator.mediaDevices.getUserMedia({
    video: { width: { exact: 640 }, height: { exact: 480 }, frameRate: { exact: 15 } },
    audio: true,
  });
  const a = new RTCPeerConnection(), b = new RTCPeerConnection();
  a.onicecandidate = (e) => e.candidate && b.addIceCandidate(e.candidate).catch(() => {});
  b.onicecandidate = (e) => e.candidate && a.addIceCandidate(e.candidate).catch(() => {});
  for (const t of stream.getTracks()) {
    const tr = a.addTransceiver(t, { direction: 'sendonly', streams: [stream] });
    // The codec, with its retransmission (rtx) and nothing else.
    if (t.kind === 'video') tr.setCodecPreferences(wanted.concat(caps.filter((c) => c.mimeType === 'video/rtx')));
  }
  const video = document.getElementById('v');
  let firstFrame = -1;
  const g2g = [];
  b.ontrack = (e) => {
    // Played, so that the audio jitter buffer is drained and measured.
    if (e.track.kind === 'audio') document.getElementById('a').srcObject = new MediaStream([e.track]);
    if (e.track.kind !== 'video') return;
    video.srcObject = new MediaStream([e.track]);
    const onFrame = (now, meta) => {
      if (firstFrame < 0) firstFrame = now;
      // Capture time: the sender's, estimated from RTCP sender reports (one page,
      // one clock); presentation: when the frame was handed to the compositor.
      if (meta.captureTime !== undefined) g2g.push(meta.presentationTime - meta.captureTime);
      video.requestVideoFrameCallback(onFrame);
    };
    video.requestVideoFrameCallback(onFrame);
  };
  await a.setLocalDescription();
  await b.setRemoteDescription(a.localDescription);
  await b.setLocalDescription();
  const answered = performance.now();
  await a.setRemoteDescription(b.localDescription);
  await sleep(seconds * 1000);

  const rx = await b.getStats(), tx = await a.getStats();
  const find = (report, type, kind) => { let r = null; report.forEach((s) => { if (s.type === type && s.kind === kind) r = s; }); return r; };
  const vin = find(rx, 'inbound-rtp', 'video') || {}, ain = find(rx, 'inbound-rtp', 'audio') || {};
  const vout = find(tx, 'outbound-rtp', 'video') || {};
  let used = '';
  rx.forEach((s) => { if (s.type === 'codec' && s.id === vin.codecId) used = s.mimeType; });
  const per = (total, n) => (n > 0 && total !== undefined ? (1000 * total) / n : -1);
  const out = {
    codec_used: used.replace('video/', '') || 'none',
    frames_decoded: vin.framesDecoded || 0,
    frames_received: vin.framesReceived || 0,
    frames_dropped: vin.framesDropped || 0,
    freeze_count: vin.freezeCount || 0,
    frozen_s: vin.totalFreezesDuration || 0,
    nacks_sent: vin.nackCount || 0,
    plis_sent: vin.pliCount || 0,
    firs_sent: vin.firCount || 0,
    key_frames_decoded: vin.keyFramesDecoded || 0,
    key_frames_encoded: vout.keyFramesEncoded || 0,
    nacks_received: vout.nackCount || 0,
    retransmitted: vout.retransmittedPacketsSent || 0,
    packets_lost: vin.packetsLost || 0,
    packets_received: vin.packetsReceived || 0,
    video_start_ms: firstFrame >= 0 ? firstFrame - answered : -1,
    jitter_buffer_ms: per(vin.jitterBufferDelay, vin.jitterBufferEmittedCount),
    processing_ms: per(vin.totalProcessingDelay, vin.framesDecoded),
    encode_ms: per(vout.totalEncodeTime, vout.framesEncoded),
    g2g_median_ms: median(g2g),
    g2g_p95_ms: p95(g2g),
    audio_jitter_buffer_ms: per(ain.jitterBufferDelay, ain.jitterBufferEmittedCount),
    audio_packets_lost: ain.packetsLost || 0,
  };
  a.close();
  b.close();
  for (const t of stream.getTracks()) t.stop();
  video.srcObject = null;
  document.getElementById('a').srcObject = null;
  return out;
}
</script>`;

function serve() {
  return new Promise((resolve) => {
    const server = http.createServer((req, res) => {
      res.writeHead(200, { 'content-type': 'text/html' });
      res.end(PAGE);
    });
    server.listen(0, '127.0.0.1', () => resolve(server));
  });
}

function line(codec, fields) {
  const parts = [`codec=${codec}`];
  for (const [k, v] of Object.entries(fields)) {
    const text = typeof v === 'number' ? String(Math.round(v * 1000) / 1000) : String(v).replace(/\s+/g, '_');
    parts.push(`${k}=${text}`);
  }
  console.log(`RESULT ${parts.join(' ')}`);
}

async function main() {
  const a = args();
  const codecs = a.codecs.split(',').filter(Boolean);
  const profile = a.profile || fs.mkdtempSync(path.join(os.tmpdir(), 'lossy-chromium-'));
  const server = await serve();
  let browser = null;
  try {
    browser = await puppeteer.launch({
      executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
      headless: true,
      userDataDir: profile,
      args: [
        '--no-sandbox',  // root, inside the benchmark's network namespace
        '--disable-gpu',
        '--use-fake-device-for-media-stream',
        '--use-fake-ui-for-media-stream',
        '--autoplay-policy=no-user-gesture-required',
        // The namespace has loopback only: candidates on 127.0.0.1, not hidden behind mDNS.
        '--allow-loopback-in-peer-connection',
        '--disable-features=WebRtcHideLocalIpsWithMdns',
      ],
    });
    console.log(`CHROMIUM ${await browser.version()}`);
    const page = await browser.newPage();
    page.on('pageerror', (e) => console.error(`page: script error: ${e.message}`));
    await page.goto(`http://127.0.0.1:${server.address().port}/`, { waitUntil: 'load' });
    for (const codec of codecs) {
      try {
        const r = await page.evaluate((c, s) => runCodec(c, s), codec, a.seconds);
        if (r.why) line(codec, { ok: 0, why: r.why });
        else line(codec, Object.assign({ ok: 1 }, r));
      } catch (e) {
        line(codec, { ok: 0, why: e.message.split('\n')[0] });
      }
    }
  } catch (e) {
    for (const codec of codecs) line(codec, { ok: 0, why: `chromium: ${e.message.split('\n')[0]}` });
  } finally {
    if (browser) await browser.close().catch(() => {});
    server.close();
    if (!a.profile) fs.rmSync(profile, { recursive: true, force: true });
  }
}

main().then(() => process.exit(0), (e) => {
  console.error(e.message);
  process.exit(1);
});
