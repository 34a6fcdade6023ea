// Drives the web monitor in the system's headless Chromium (fake camera and
// microphone) through one call with the door phone, and checks from the page's
// own statistics that video flows both ways.
//   node browser_call.js --url URL --direction incoming|outgoing
//                        [--screenshot FILE] [--seconds S] [--hold S] [--profile DIR]
// incoming: the door calls the page, which answers by itself when the URL says
// answer=auto, else on a click of its Answer button;
// outgoing: the page calls the door. Prints "page: registered" once the page can
// take a call, then the figures; exits 0 only when video flowed both ways.
// --seconds: how long video flows before the figures and the screenshot are taken;
// --hold: how long the door may keep an incoming call up after that.
'use strict';
const fs = require('fs');
const os = require('os');
const path = require('path');
const puppeteer = require('puppeteer-core');

function args() {
  const a = { direction: 'incoming', seconds: 3, hold: 10, screenshot: '', url: '', profile: '' };
  const argv = process.argv.slice(2);
  for (let i = 0; i < argv.length; i += 2) {
    const key = argv[i].replace(/^--/, '');
    if (!(key in a) || argv[i + 1] === undefined) throw new Error(`bad argument ${argv[i]}`);
    a[key] = key === 'seconds' || key === 'hold' ? Number(argv[i + 1]) : argv[i + 1];
  }
  if (!a.url || !['incoming', 'outgoing'].includes(a.direction)) throw new Error('usage: see the header');
  return a;
}

const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
const t0 = Date.now();
const say = (text) => console.log(`${String(Date.now() - t0).padStart(7)} ms  page: ${text}`);

async function until(what, ms, probe) {
  const end = Date.now() + ms;
  for (;;) {
    const value = await probe();
    if (value) return value;
    if (Date.now() > end) throw new Error(`timed out waiting for ${what}`);
    await sleep(100);
  }
}

// Video in and out, by the page's getStats(): frames decoded, packets both ways.
function flowing(s) {
  const vin = s && s.video.in, vout = s && s.video.out;
  return vin && vout && vin.frames > 0 && vin.packets > 0 && vout.packets > 0;
}

async function main() {
  const a = args();
  // The browser's profile never lands in the home folder (CI runs with an empty one).
  const profile = a.profile || fs.mkdtempSync(path.join(os.tmpdir(), 'web-monitor-'));
  const browser = await puppeteer.launch({
    executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
    headless: true,
    userDataDir: profile,
    args: [
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
    ],
    defaultViewport: { width: 700, height: 620 },
  });
  let ok = false;
  const page = await browser.newPage();
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
    if (a.direction === 'outgoing') {
      await page.click('#call');
      say('calling the door');
    } else if (new URL(a.url).searchParams.get('answer') !== 'auto') {
      // A resident's way: the page rings, one click answers.
      await until('the door to ring', 30000, async () => (await state()) === 'ringing');
      say('ringing; clicking Answer');
      await page.click('#answer');
    }
    await until('the call', 30000, async () => (await state()) === 'incall');
    say('in call');
    const stats = () => page.evaluate(() => window.monitor.stats());
    const first = await until('video both ways', 20000, async () => {
      const s = await stats();
      return flowing(s) ? s : null;
    });
    say(`first decoded door frame ${first.firstFrameMs} ms after answering`);
    await sleep(a.seconds * 1000);
    const s = await stats();
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
    ok = flowing(s) && s.video.in.frames > first.video.in.frames;
    if (a.direction === 'outgoing') await page.click('#hangup');
    await until('the end of the call', (a.hold + 10) * 1000, async () => (await state()) === 'registered');
    say('call ended');
    console.log(`RESULT ${JSON.stringify(s)}`);
  } finally {
    // A failed call still ends properly: the phone must not wait for a BYE.
    await page.evaluate(() => window.monitor && window.monitor.hangup()).catch(() => {});
    await sleep(300);
    await browser.close();
    if (!a.profile) fs.rmSync(profile, { recursive: true, force: true });
  }
  if (!ok) throw new Error('video did not keep flowing');
}

main().catch((e) => {
  say(`FAILED: ${e.message}`);
  process.exit(1);
});
