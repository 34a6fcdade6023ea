// Drives the web monitor in the system's headless Chromium (fake camera and
// microphone) through one call with the door phone, and checks from the page's
// own statistics that video and audio flow both ways.
//   node browser_call.js --url URL --direction incoming|outgoing|none
//                        [--screenshot FILE] [--seconds S] [--hold S] [--wait S]
//                        [--profile DIR] [--plain 1] [--expect-rings N]
// incoming: the door calls the page, which answers by itself when the URL says
// answer=auto, else on a click of its Answer button;
// outgoing: the page calls the door;
// none: the page only registers and stays until --hold runs out or the process is
// told to stop (SIGTERM), then reports what reached it.
// Prints "page: registered" once the page can take a call, then the figures, and a
// last line "RESULT {json}" (the page's getStats() summary, its ring counts, and
// why it failed); exits 0 only when media flowed both ways (none: always 0).
// --seconds: how long media flows before the figures and the screenshot are taken;
// --hold: how long the door may keep an incoming call up after that;
// --wait: how long to wait for the ring and for the call to start;
// --plain 1: Chromium without media encryption, as a device stand-in;
// --expect-rings N: an incoming call fails unless the page rang exactly N times.
'use strict';
const fs = require('fs');
const os = require('os');
const path = require('path');
const puppeteer = require('puppeteer-core');

function args() {
  const a = { direction: 'incoming', seconds: 3, hold: 10, wait: 30, screenshot: '', url: '',
              profile: '', plain: '0', 'expect-rings': '' };
  const numeric = ['seconds', 'hold', 'wait'];
  const argv = process.argv.slice(2);
  for (let i = 0; i < argv.length; i += 2) {
    const key = argv[i].replace(/^--/, '');
    if (!(key in a) || argv[i + 1] === undefined) throw new Error(`bad argument ${argv[i]}`);
    a[key] = numeric.includes(key) ? Number(argv[i + 1]) : argv[i + 1];
  }
  if (!a.url || !['incoming', 'outgoing', 'none'].includes(a.direction))
    throw new Error('usage: see the header');
  return a;
}

const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
const t0 = Date.now();
const say = (text) => console.log(`${String(Date.now() - t0).padStart(7)} ms  page: ${text}`);
let stopping = false;
for (const sig of ['SIGTERM', 'SIGINT']) process.on(sig, () => { stopping = true; });

async function until(what, ms, probe) {
  const end = Date.now() + ms;
  for (;;) {
    const value = await probe();
    if (value) return value;
    if (Date.now() > end) throw new Error(`timed out after ${ms / 1000} s waiting for ${what}`);
    if (stopping) throw new Error(`stopped while waiting for ${what}`);
    await sleep(100);
  }
}

// Media both ways, by the page's getStats(): video frames decoded, packets every way.
function missing(s) {
  if (!s) return 'no peer connection';
  const vin = s.video.in || {}, vout = s.video.out || {}, ain = s.audio.in || {}, aout = s.audio.out || {};
  const gaps = [];
  if (!(vin.packets > 0)) gaps.push('no video packets from the door');
  else if (!(vin.frames > 0)) gaps.push(`0 video frames decoded from ${vin.packets} packets (${vin.codec || 'no codec'})`);
  if (!(vout.packets > 0)) gaps.push('no video packets sent');
  if (!(ain.packets > 0)) gaps.push('no audio packets from the door');
  if (!(aout.packets > 0)) gaps.push('no audio packets sent');
  return gaps.join('; ');
}

function launch(a, profile) {
  const flags = [
    '--no-sandbox',  // root in CI containers
    '--disable-gpu',
    '--use-fake-device-for-media-stream',
    '--use-fake-ui-for-media-stream',
    '--autoplay-policy=no-user-gesture-required',
    // Loopback ICE: the door's engine offers 127.0.0.1 only (see docs/browser.md).
    '--allow-loopback-in-peer-connection',
    '--disable-features=WebRtcHideLocalIpsWithMdns',
    '--window-size=700,620',
    // The test's Kamailio serves secure WebSocket with a certificate from a CA
    // made for the run, which this fresh profile does not know.
    '--ignore-certificate-errors',
  ];
  // A device stand-in: plain RTP/AVPF with ICE, what the devices' own engine sends.
  if (a.plain === '1') flags.push('--disable-webrtc-encryption');
  return puppeteer.launch({
    executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
    headless: true,
    userDataDir: profile,
    args: flags,
    defaultViewport: { width: 700, height: 620 },
    // A stop request ends the wait, and the figures are still read (see main).
    handleSIGTERM: false,
    handleSIGINT: false,
  });
}

async function main() {
  const a = args();
  // The browser's profile never lands in the home folder (CI runs with an empty one).
  const profile = a.profile || fs.mkdtempSync(path.join(os.tmpdir(), 'web-monitor-'));
  const browser = await launch(a, profile);
  const result = { stats: null, invites: 0, rings: 0, refused: [], failure: null, error: null };
  const page = await browser.newPage();
  const monitorState = () => page.evaluate(() => window.monitor && {
    state: window.monitor.state, invites: window.monitor.invites, rings: window.monitor.rings,
    refused: window.monitor.refused, failure: window.monitor.failure });
  try {
    page.on('console', (m) => {
      if (m.type() === 'error' || m.type() === 'warn') say(`console ${m.type()}: ${m.text()}`);
    });
    page.on('pageerror', (e) => say(`script error: ${e.message}`));
    await page.goto(a.url, { waitUntil: 'load' });
    const state = () => page.evaluate(() => window.monitor && window.monitor.state);
    await until('registration', 10000, async () => {
      const s = await state();
      if (s === 'failed') throw new Error('registration failed');
      return s === 'registered';
    });
    say(`registered (${new URL(a.url).searchParams.get('ws')})`);
    if (a.direction === 'none') {
      await until('the end', a.hold * 1000, async () => stopping).catch(() => {});
      return;
    }
    if (a.direction === 'outgoing') {
      await page.click('#call');
      say('calling the door');
    } else if (new URL(a.url).searchParams.get('answer') !== 'auto') {
      // A resident's way: the page rings, one click answers.
      await until('the door to ring', a.wait * 1000, async () => (await state()) === 'ringing');
      say('ringing; clicking Answer');
      await page.click('#answer');
    }
    await until('the call', a.wait * 1000, async () => {
      const m = await monitorState();
      if (m.failure) throw new Error(`the call was refused: ${m.failure}`);
      return m.state === 'incall';
    });
    say('in call');
    const stats = () => page.evaluate(() => window.monitor.stats());
    const first = await until('media both ways', Math.min(20, a.wait) * 1000, async () => {
      const s = await stats();
      if (s) result.stats = s;
      else if ((await state()) !== 'incall') throw new Error('the call ended before media flowed both ways');
      return missing(s) ? null : s;
    }).catch((e) => { throw new Error(`${e.message}: ${missing(result.stats)}`); });
    say(`first decoded door frame ${first.firstFrameMs} ms after answering`);
    await sleep(a.seconds * 1000);
    const s = await stats();
    result.stats = s;
    say(`video in: ${s.video.in.codec} ${s.video.in.fmtp}, ${s.video.in.frames} frames decoded, ` +
        `${s.video.in.packets} packets, ${s.video.in.width || '?'} wide`);
    say(`video out: ${s.video.out.codec}, ${s.video.out.frames} frames encoded, ` +
        `${s.video.out.packets} packets`);
    const ain = s.audio.in || {}, aout = s.audio.out || {};
    say(`audio in: ${ain.codec || 'none'} ${ain.packets || 0} packets; ` +
        `out: ${aout.codec || 'none'} ${aout.packets || 0} packets`);
    if (a.screenshot) {
      await page.screenshot({ path: a.screenshot });
      say(`screenshot ${a.screenshot}`);
    }
    const gaps = missing(s);
    if (gaps) throw new Error(`media stopped: ${gaps}`);
    if (!(s.video.in.frames > first.video.in.frames)) throw new Error('video stopped after the first frames');
    if (a.direction === 'outgoing') await page.click('#hangup');
    await until('the end of the call', (a.hold + 10) * 1000, async () => (await state()) === 'registered');
    say('call ended');
  } catch (e) {
    result.error = e.message;
  } finally {
    const m = await monitorState().catch(() => null);
    if (m) Object.assign(result, { invites: m.invites, rings: m.rings, refused: m.refused, failure: m.failure });
    if (!result.error && a.direction === 'incoming' && a['expect-rings'] !== '' &&
        result.rings !== Number(a['expect-rings']))
      result.error = `the page rang ${result.rings} times (INVITEs: ${result.invites}), not ${a['expect-rings']}`;
    say(`INVITEs ${result.invites}, rang ${result.rings}, refused ${result.refused.length}` +
        (result.refused.length ? ` (${result.refused.join('; ')})` : ''));
    if (result.error) {
      const events = await page.evaluate(() => window.monitor ? window.monitor.events.slice(-8) : [])
        .catch(() => []);
      for (const e of events) say(`event ${e}`);
    }
    // A failed call still ends properly: the phone must not wait for a BYE.
    await page.evaluate(() => window.monitor && window.monitor.hangup()).catch(() => {});
    await sleep(300);
    await browser.close();
    if (!a.profile) fs.rmSync(profile, { recursive: true, force: true });
  }
  console.log(`RESULT ${JSON.stringify(result)}`);
  if (result.error) throw new Error(result.error);
}

main().catch((e) => {
  say(`FAILED: ${e.message}`);
  process.exit(1);
});
