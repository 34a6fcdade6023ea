// The resident's page: registers over SIP-over-WebSocket, rings when the door
// calls, answers (one click, or at once with ?answer=auto), shows the door large
// and the own camera small, hangs up, and calls the door.
// URL parameters fill the form: ws, domain, user, password, door, answer=auto;
// with ws, domain and password given it connects by itself.
// A call offered without DTLS-SRTP is refused (488 with a Warning) before it rings.
// Test parameters: plain=1 takes plain RTP offers (a device stand-in: Chromium
// started without media encryption); codec=VP8 offers and answers that video codec
// only, as a browser without H264 does.
import { Inviter, Registerer, RegistererState, SessionState, UserAgent, Web } from './sip.js/index.js';

const $ = (id) => document.getElementById(id);
const params = new URLSearchParams(location.search);
const media = { audio: true, video: true };

// What the page shows, readable by a test through window.monitor.
const monitor = {
  state: 'idle',
  events: [],
  invites: 0,  // INVITEs that reached the page
  rings: 0,  // of those, the ones that rang
  refused: [],  // why the others did not
  failure: null,  // why our own last call failed
  ringAt: null,
  answeredAt: null,
  firstFrameAt: null,
  session: null,
  call: () => placeCall(),
  answer: () => answer(),
  hangup: () => hangup(),
  stats: () => collectStats(),
};
window.monitor = monitor;

function note(text) {
  const line = `${(performance.now() / 1000).toFixed(2)} s  ${text}`;
  monitor.events.push(line);
  $('log').textContent = monitor.events.slice(-30).join('\n');
}

function setState(state, text) {
  monitor.state = state;
  $('status').textContent = text || state;
  const inCall = monitor.session !== null;
  $('answer').disabled = state !== 'ringing';
  $('hangup').disabled = !inCall;
  $('call').disabled = state !== 'registered';
  $('ring').hidden = state !== 'ringing';
  ringTone(state === 'ringing');
  note(text || state);
}

let ua = null;
let registerer = null;
let account = null;

function fillForm() {
  const form = $('account');
  for (const name of ['ws', 'domain', 'user', 'password', 'door'])
    if (params.has(name)) form.elements[name].value = params.get(name);
  form.addEventListener('submit', (e) => {
    e.preventDefault();
    connect(Object.fromEntries(new FormData(form)));
  });
  if (params.has('ws') && params.has('domain') && params.has('password'))
    connect(Object.fromEntries(new FormData(form)));
}

async function connect(values) {
  if (ua) return;
  try {
    audio = audio || new AudioContext();
  } catch (e) {
    audio = null;  // no sound: the banner still rings
  }
  account = values;
  const uri = UserAgent.makeURI(`sip:${values.user}@${values.domain}`);
  if (!uri) return setState('failed', 'bad user or domain');
  ua = new UserAgent({
    uri,
    transportOptions: { server: values.ws },
    authorizationUsername: values.user,
    authorizationPassword: values.password,
    displayName: 'Resident',
    logLevel: 'warn',
    // Non-trickle: the door's engine takes complete descriptions only.
    sessionDescriptionHandlerFactoryOptions: {
      peerConnectionConfiguration: { iceServers: [] },
      iceGatheringTimeout: 3000,
    },
    // The page rings itself (180) once it knows it can take the offer.
    sendInitialProvisionalResponse: false,
    sessionDescriptionHandlerFactory: params.has('codec') ? preferVideoCodec(params.get('codec'))
                                                          : Web.defaultSessionDescriptionHandlerFactory(),
    delegate: { onInvite: ringing, onDisconnect: () => setState('failed', 'server connection lost') },
  });
  $('account').classList.add('connected');
  setState('registering', `registering as ${values.user}@${values.domain}`);
  try {
    await ua.start();
    registerer = new Registerer(ua, { expires: 300 });
    registerer.stateChange.addListener((s) => {
      if (s === RegistererState.Registered) setState('registered', `registered as ${values.user}`);
      else if (s === RegistererState.Unregistered && monitor.state === 'registering')
        setState('failed', 'registration refused');
    });
    await registerer.register({
      requestDelegate: { onReject: (r) => setState('failed', `registration refused: ${r.message.statusCode}`) },
    });
  } catch (e) {
    setState('failed', `cannot reach the server: ${e.message}`);
  }
}

// The ring: two short tones every 1.5 s while the page rings. The audio context is
// made on Connect (a click), which browsers require before any sound.
let audio = null;
let ringTimer = null;

function ringTone(on) {
  clearInterval(ringTimer);
  ringTimer = null;
  if (!on || !audio) return;
  const beep = () => {
    if (audio.state === 'suspended') audio.resume().catch(() => {});
    [0, 0.25].forEach((at, i) => {
      const osc = audio.createOscillator();
      const gain = audio.createGain();
      osc.frequency.value = i ? 660 : 880;
      gain.gain.value = 0.15;
      osc.connect(gain).connect(audio.destination);
      osc.start(audio.currentTime + at);
      osc.stop(audio.currentTime + at + 0.2);
    });
  };
  beep();
  ringTimer = setInterval(beep, 1500);
}

function ringing(invitation) {
  monitor.invites++;
  if (monitor.session) {
    invitation.reject({ statusCode: 486 });  // one call at a time
    return;
  }
  const why = params.get('plain') === '1' ? null : notDtls(invitation.body);
  if (why) {
    // Refused before it rings: the caller may try again with DTLS-SRTP, and the
    // resident hears one ring, not two.
    monitor.refused.push(why);
    note(`refused a call: ${why}`);
    invitation.reject({ statusCode: 488, reasonPhrase: 'Not Acceptable Here',
                        extraHeaders: [`Warning: 399 web-monitor "${why}"`] }).catch(() => {});
    return;
  }
  invitation.progress().catch(() => {});
  monitor.rings++;
  track(invitation);
  monitor.ringAt = performance.now();
  setState('ringing', `the door rings (${invitation.remoteIdentity.uri.user})`);
  if (params.get('answer') === 'auto') answer();
}

// Why a browser cannot take this offer, or null. Only an SDP offer is judged: an
// INVITE without one gets our offer in the answer.
function notDtls(body) {
  if (typeof body !== 'string' || !body) return null;
  for (const line of body.split(/\r?\n/)) {
    const m = /^m=(audio|video) (\d+) (\S+)/.exec(line);
    if (!m || m[2] === '0') continue;
    if (!/^UDP\/TLS\/RTP\/SAVPF?$/i.test(m[3])) {
      const profile = m[3].replace(/[^A-Za-z0-9/]/g, '').slice(0, 32);
      return `browsers need DTLS-SRTP (offer is ${profile})`;
    }
  }
  return null;
}

// The video codec a browser without H264 would be left with, set on every video
// transceiver before each offer and answer.
function preferVideoCodec(name) {
  const base = Web.defaultSessionDescriptionHandlerFactory();
  const wanted = `video/${name}`.toLowerCase();
  return (session, options) => {
    const sdh = base(session, options);
    const create = sdh.createLocalOfferOrAnswer.bind(sdh);
    sdh.createLocalOfferOrAnswer = (o) => {
      const codecs = (RTCRtpReceiver.getCapabilities('video') || { codecs: [] }).codecs
        .filter((c) => c.mimeType.toLowerCase() === wanted);
      for (const t of sdh.peerConnection.getTransceivers())
        if (t.receiver.track && t.receiver.track.kind === 'video' && codecs.length)
          t.setCodecPreferences(codecs);
      return create(o);
    };
    return sdh;
  };
}

function track(session) {
  monitor.session = session;
  monitor.answeredAt = null;
  monitor.firstFrameAt = null;
  session.stateChange.addListener((s) => {
    if (s === SessionState.Established) {
      monitor.answeredAt = performance.now();
      showMedia(session);
      setState('incall', 'in call with the door');
    } else if (s === SessionState.Terminated) {
      monitor.session = null;
      $('remote').srcObject = null;
      $('local').srcObject = null;
      setState(registerer && registerer.state === RegistererState.Registered ? 'registered' : 'ended',
               'call ended');
    }
  });
}

function showMedia(session) {
  const sdh = session.sessionDescriptionHandler;
  const remote = $('remote');
  remote.srcObject = sdh.remoteMediaStream;
  $('local').srcObject = sdh.localMediaStream;
  // Without a click (auto-answer) the browser may refuse sound: play muted then.
  remote.play().catch(() => {
    remote.muted = true;
    remote.play().catch(() => {});
  });
  const first = () => {
    if (monitor.firstFrameAt === null) {
      monitor.firstFrameAt = performance.now();
      note(`first door frame ${remote.videoWidth}x${remote.videoHeight}`);
    }
  };
  if (remote.requestVideoFrameCallback) remote.requestVideoFrameCallback(first);
  else remote.addEventListener('playing', first, { once: true });
}

function answer() {
  const s = monitor.session;
  if (!s || monitor.state !== 'ringing') return;
  setState('answering', 'answering');
  s.accept({ sessionDescriptionHandlerOptions: { constraints: media } })
    .catch((e) => note(`answer failed: ${e.message}`));
}

function hangup() {
  const s = monitor.session;
  if (!s) return;
  if (s.state === SessionState.Established) s.bye();
  else if (s instanceof Inviter) s.cancel();
  else s.reject();
}

function placeCall() {
  if (monitor.state !== 'registered') return;
  const target = UserAgent.makeURI(`sip:${account.door}@${account.domain}`);
  if (!target) return setState('failed', 'bad door address');
  const inviter = new Inviter(ua, target, { sessionDescriptionHandlerOptions: { constraints: media } });
  track(inviter);
  monitor.failure = null;
  setState('calling', `calling ${account.door}`);
  const onReject = (r) => {
    const m = r.message;
    const warning = m.getHeader('Warning');
    monitor.failure = `${m.statusCode} ${m.reasonPhrase}${warning ? ` (Warning: ${warning})` : ''}`;
    note(`call refused: ${monitor.failure}`);
  };
  inviter.invite({ requestDelegate: { onReject } }).catch((e) => note(`call failed: ${e.message}`));
}

// The figures a person would look for: what arrives from the door, what we send.
async function collectStats() {
  const s = monitor.session;
  const pc = s && s.sessionDescriptionHandler && s.sessionDescriptionHandler.peerConnection;
  if (!pc) return null;
  const report = await pc.getStats();
  const codecs = new Map();
  report.forEach((r) => { if (r.type === 'codec') codecs.set(r.id, r); });
  const out = { video: {}, audio: {} };
  report.forEach((r) => {
    if (r.type !== 'inbound-rtp' && r.type !== 'outbound-rtp') return;
    const kind = r.kind || r.mediaType;
    if (!out[kind]) return;
    const codec = codecs.get(r.codecId) || {};
    const side = r.type === 'inbound-rtp' ? 'in' : 'out';
    out[kind][side] = {
      codec: codec.mimeType || '',
      fmtp: codec.sdpFmtpLine || '',
      packets: side === 'in' ? r.packetsReceived : r.packetsSent,
      frames: side === 'in' ? r.framesDecoded : r.framesEncoded,
      width: side === 'in' ? r.frameWidth : r.frameWidth,
    };
  });
  out.firstFrameMs = monitor.firstFrameAt === null || monitor.answeredAt === null ? null
    : Math.round(monitor.firstFrameAt - monitor.answeredAt);
  return out;
}

$('answer').addEventListener('click', answer);
$('hangup').addEventListener('click', hangup);
$('call').addEventListener('click', placeCall);
fillForm();
