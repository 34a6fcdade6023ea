// Judges one interop call from each side's own figures, and writes the matrix.
//   node verdict.js call --case NAME --peer NAME --direction in|out --profile TEXT
//                        --codec TEXT --door LOG --peer-kind page|baresip
//                        --peer-figures JSON_FILE [--peer-log LOG] --results FILE
//   node verdict.js note --result skipped|FAILED --case NAME --peer NAME
//                        --direction in|out --profile TEXT --codec TEXT --why TEXT
//                        --results FILE    (a call that could not be made)
//   node verdict.js matrix --results FILE --markdown OUT.md
// call: prints one result line and appends the row to FILE (JSON lines); exits 0.
// matrix: prints the table, writes it as markdown; exits 0 when every row passed,
// 1 when one failed, 77 when none failed but some were skipped.
// The door's log is zarnrtc-phone's output with ZARNRTC_SIP_LOG=1 (the SIP wire
// trace) and ZARNRTC_TIMELINE=1 (the media engine's marks) on.
'use strict';
const fs = require('fs');

// Below these a call "connected" without usable video.
const kMinFrames = 10;
const kMinFps = 5;

function options(argv) {
  const o = {};
  for (let i = 0; i < argv.length; i += 2) {
    if (!argv[i].startsWith('--') || argv[i + 1] === undefined) throw new Error(`bad argument ${argv[i]}`);
    o[argv[i].slice(2)] = argv[i + 1];
  }
  return o;
}

const read = (file) => { try { return fs.readFileSync(file, 'utf8'); } catch (e) { return ''; } };

// The SIP messages of the wire trace: "send|recv N bytes to|from ..." then the
// message indented by three spaces between two rules.
function sipMessages(log) {
  const out = [];
  let cur = null;
  for (const line of log.split('\n')) {
    const head = /^(send|recv) \d+ bytes (?:to|from) \S+ at (\d+):(\d+):([\d.]+):/.exec(line);
    if (head) {
      cur = { dir: head[1], lines: [], at: (Number(head[2]) * 60 + Number(head[3])) * 60 + Number(head[4]) };
      out.push(cur);
    } else if (cur && line.startsWith('   ')) {
      if (!/^ +-{20,}$/.test(line)) cur.lines.push(line.slice(3));
    } else {
      cur = null;
    }
  }
  return out.map((m) => {
    const header = (name) => {
      const re = new RegExp(`^${name}:\\s*(.*)$`, 'i');
      const l = m.lines.find((x) => re.test(x));
      return l ? re.exec(l)[1].trim() : '';
    };
    const first = m.lines[0] || '';
    const status = /^SIP\/2\.0 (\d{3}) (.*)$/.exec(first);
    return {
      dir: m.dir,
      at: m.at,
      method: status ? null : first.split(' ')[0],
      status: status ? Number(status[1]) : null,
      reason: status ? status[2] : '',
      cseq: header('CSeq'),
      warning: header('Warning'),
      why: header('Reason'),
      media: sdpMedia(m.lines),
    };
  });
}

// The audio and video sections of a message's SDP: kind, port, profile, the first
// codec and the direction.
function sdpMedia(lines) {
  const out = [];
  let cur = null;
  for (const l of lines) {
    const m = /^m=(audio|video) (\S+) (\S+) ?(\S*)/.exec(l);
    if (m) {
      cur = { kind: m[1], port: m[2], proto: m[3], pt: m[4], codec: '', dir: 'sendrecv' };
      out.push(cur);
    } else if (/^m=/.test(l)) {
      cur = null;
    } else if (cur) {
      const map = /^a=rtpmap:(\d+) ([^/\s]+)/.exec(l);
      if (map && map[1] === cur.pt) cur.codec = map[2];
      const dir = /^a=(sendrecv|sendonly|recvonly|inactive)\s*$/.exec(l);
      if (dir) cur.dir = dir[1];
    }
  }
  return out;
}

// The INVITE exchanges, in order: each offer's media lines, its final answer, and
// the door's own BYE after an answer (with its Reason: an answer it could not use).
function inviteStory(msgs, sentByDoor) {
  const story = [];
  const invDir = sentByDoor ? 'send' : 'recv';
  for (const m of msgs) {
    const cur = story[story.length - 1];
    if (m.method === 'INVITE' && m.dir === invDir) {
      story.push({ offer: m.media, at: m.at, provisional: [], final: null, bye: null });
    } else if (m.status && / INVITE$/.test(m.cseq) && m.dir !== invDir && cur) {
      if (m.status < 200) {
        if (m.status > 100) cur.provisional.push(m.status);
      } else if (!cur.final) cur.final = m;
    } else if (m.method === 'BYE' && m.dir === 'send' && cur && !cur.bye) {
      cur.bye = m;
    }
  }
  // A 401/407 challenge and its retry are one attempt.
  return story.filter((s) => !(s.final && (s.final.status === 401 || s.final.status === 407)));
}

// "RTP/AVPF", or "UDP/TLS/RTP/SAVPF, video rejected" when a line has port 0.
function profileOf(media) {
  if (!media.length) return 'no SDP';
  const protos = [...new Set(media.map((m) => m.proto))].join('+');
  const rejected = media.filter((m) => m.port === '0').map((m) => m.kind);
  return rejected.length ? `${protos}, ${rejected.join(' and ')} rejected` : protos;
}

function describeStory(story) {
  return story.map((s) => {
    const f = s.final;
    const ms = f ? ` after ${Math.round(((f.at - s.at + 86400) % 86400) * 1000)} ms` : '';
    const end = !f ? 'no final answer' : `${f.status} ${f.reason}${f.warning ? ` [Warning: ${f.warning}]` : ''}` +
      (f.status >= 200 && f.status < 300 ? ` (${profileOf(f.media)})` : '') + ms;
    const early = [...new Set(s.provisional)].map((c) => `${c}, `).join('');
    const bye = s.bye && s.bye.why ? `, then the door's BYE [Reason: ${s.bye.why}]` : '';
    return `INVITE (${profileOf(s.offer)}) -> ${early}${end}${bye}`;
  }).join('; ');
}

function doorFigures(log) {
  const summary = /^summary: (.*) \(exit (\d+)\)$/m.exec(log);
  const remote = /^ {2}remote video (\d+) frames (\S+), first at (-?\d+) ms(?:, (\d+) fps)?/m.exec(log);
  const answered = /^ {2}registered (-?\d+) ms, placed (-?\d+) ms, ringing (-?\d+) ms, answered (-?\d+) ms/m.exec(log);
  return {
    registered: /registered as /.test(log),
    summary: summary ? summary[1] : 'no summary (the phone did not finish)',
    exit: summary ? Number(summary[2]) : -1,
    answeredMs: answered ? Number(answered[4]) : -1,
    remoteFrames: remote ? Number(remote[1]) : 0,
    remoteSize: remote ? remote[2] : '',
    firstFrameMs: remote ? Number(remote[3]) : -1,
    fps: remote && remote[4] !== undefined ? Number(remote[4]) : 0,
    audioIn: /first audio RTP in/.test(log),
    audioOut: /first encoded audio out/.test(log),
  };
}

// The peer's figures in one shape: page (getStats summary) or baresip (watcher).
function peerFigures(kind, file) {
  let j = null;
  try { j = JSON.parse(read(file)); } catch (e) { j = null; }
  if (!j) return { ok: false, error: 'no figures from the peer' };
  const s = kind === 'page' ? j.stats : j;
  const pick = (kindName, side) => (s && s[kindName] && s[kindName][side]) || {};
  return {
    ok: true,
    error: kind === 'page' ? j.error : null,
    rings: kind === 'page' ? j.rings : null,
    invites: kind === 'page' ? j.invites : null,
    failure: kind === 'page' ? j.failure : null,
    vin: pick('video', 'in'), vout: pick('video', 'out'), ain: pick('audio', 'in'), aout: pick('audio', 'out'),
    encryption: kind === 'baresip' ? (s.video && s.video.encryption) || (s.audio && s.audio.encryption) : '',
  };
}

const codecName = (c) => String(c || '').replace(/^(video|audio)\//, '').replace(/^none$/, '') || '-';

// What was missing, in the order a person would look: registration, signalling,
// then media both ways from each side's own figures.
function judge(o, door, peer, story, peerLog) {
  if (peer.error && /registration/.test(peer.error)) return `the peer did not register: ${peer.error}`;
  if (!door.registered) return `the door did not register (${door.summary})`;
  const answeredOnWire = story.some((s) => s.final && s.final.status >= 200 && s.final.status < 300);
  if (!story.length) {
    if (o.direction === 'out') return `the door sent no INVITE (${door.summary})`;
    const why = peer.failure || (peer.error && !/timed out/.test(peer.error) ? peer.error : '') || peerLog;
    return `no INVITE reached the door${why ? ` (peer: ${why})` : ''}`;
  }
  if (!answeredOnWire) {
    const last = story[story.length - 1];
    if (!last.final) {
      const rang = last.provisional.includes(180) ? 'rang, ' : '';
      return `${describeStory(story)}: the INVITE was never answered (${rang}${door.summary})`;
    }
    return `refused: ${describeStory(story)}${last.final.warning ? '' : ' (no Warning header)'}`;
  }
  const ok = story.filter((s) => s.final && s.final.status < 300).pop();
  if (door.answeredMs < 0)
    return `${describeStory(story)}, but the door never reported the call answered (${door.summary})`;
  const gaps = [];
  if (door.remoteFrames === 0) gaps.push('the door decoded 0 video frames');
  else if (door.remoteFrames < kMinFrames || door.fps < kMinFps)
    gaps.push(`the door decoded only ${door.remoteFrames} video frames (${door.fps} fps)`);
  if (!door.audioIn) gaps.push('no audio RTP reached the door');
  if (!peer.ok) gaps.push(peer.error);
  else {
    if (!(peer.vin.frames > 0)) gaps.push(`the peer decoded 0 video frames (${peer.vin.packets || 0} video packets in)`);
    else if (peer.vin.frames < kMinFrames) gaps.push(`the peer decoded only ${peer.vin.frames} video frames`);
    if (!(peer.vout.packets > 0)) gaps.push('the peer sent no video packets');
    if (!(peer.ain.packets > 0)) gaps.push('no audio packets reached the peer');
    if (!(peer.aout.packets > 0)) gaps.push('the peer sent no audio packets');
  }
  if (gaps.length) {
    const video = ok.final.media.find((x) => x.kind === 'video' && x.port !== '0');
    const answered = video ? `; answer's video ${video.codec || `pt ${video.pt}`} ${video.dir}` : '';
    return `connected (${profileOf(ok.final.media)}${answered}), but ${gaps.join('; ')}` +
      (peerLog ? ` (peer: ${peerLog})` : '');
  }
  if (peer.rings !== null && o.direction === 'out' && peer.rings !== 1)
    return `the page rang ${peer.rings} times (INVITEs reaching it: ${peer.invites})`;
  if (peer.error) return `peer: ${peer.error}`;
  if (door.exit !== 0) return `door: ${door.summary}`;
  return '';
}

function callRow(o) {
  const log = read(o.door);
  const door = doorFigures(log);
  const story = inviteStory(sipMessages(log), o.direction === 'out');
  const peer = peerFigures(o['peer-kind'], o['peer-figures']);
  // A few of the peer's own lines about the call's end, for a failure's reason.
  const peerLog = [...new Set(read(o['peer-log'] || '').split('\n')
    .map((l) => l.replace(/\x1b\[[0-9;]*m/g, '').trim())
    .filter((l) => /Not Acceptable|[Rr]eason|mismatch|not supported|no remote candidates|failed|error|refused|rejected/.test(l))
    .filter((l) => !/^ctrl_tcp:|RESULT|FAILED:|INVITEs \d+, rang/.test(l)))].slice(-3).join(' / ');
  const why = judge(o, door, peer, story, peerLog);
  return {
    case: o.case, peer: o.peer, direction: o.direction, profile: o.profile, codec: o.codec,
    result: why ? 'FAILED' : 'passed',
    why,
    wire: describeStory(story),
    door: door.answeredMs >= 0
      ? `first frame ${door.firstFrameMs >= 0 ? `${door.firstFrameMs - door.answeredMs} ms after the answer` : 'never'}, ` +
        `${door.remoteFrames} frames (${door.fps} fps), audio in ${door.audioIn ? 'yes' : 'no'}`
      : 'not answered',
    peerFigures: peer.ok
      ? `video in ${codecName(peer.vin.codec)} ${peer.vin.frames || 0} frames, out ${codecName(peer.vout.codec)} ` +
        `${peer.vout.packets || 0} pkts; audio in ${codecName(peer.ain.codec)} ${peer.ain.packets || 0} pkts, ` +
        `out ${peer.aout.packets || 0} pkts` + (peer.rings !== null && o.direction === 'out' ? `; rang ${peer.rings}` : '') +
        (peer.encryption ? `; ${peer.encryption === '(none)' ? 'no encryption' : peer.encryption}` : '')
      : peer.error,
    videoCodec: peer.ok ? codecName(peer.vin.codec) : '-',
  };
}

const arrow = (d) => (d === 'in' ? 'peer -> door' : 'door -> peer');

function line(r) {
  return `interop: ${r.peer} | ${arrow(r.direction)} | ${r.profile} | ${r.codec}` +
    `${r.videoCodec && r.videoCodec !== '-' && r.videoCodec !== r.codec ? ` (got ${r.videoCodec})` : ''} | ` +
    `${r.result.toUpperCase()}${r.why ? `: ${r.why}` : ''}` +
    (r.door ? ` | door: ${r.door}` : '') + (r.peerFigures ? ` | peer: ${r.peerFigures}` : '');
}

const cell = (t) => String(t || '').replace(/\|/g, '\\|').replace(/\n/g, ' ');

function matrix(o) {
  const rows = read(o.results).split('\n').filter(Boolean).map((l) => JSON.parse(l));
  const md = [
    `| peer | direction | profile | codec | result | door's figures | peer's figures | why / SIP |`,
    `|---|---|---|---|---|---|---|---|`,
    ...rows.map((r) => `| ${cell(r.peer)} | ${arrow(r.direction)} | ${cell(r.profile)} | ${cell(r.codec)}` +
      `${r.videoCodec && r.videoCodec !== '-' && r.videoCodec !== r.codec ? ` (got ${cell(r.videoCodec)})` : ''} | ` +
      `${r.result} | ${cell(r.door)} | ${cell(r.peerFigures)} | ${cell(r.why || r.wire)} |`),
  ].join('\n');
  const count = (res) => rows.filter((r) => r.result === res).length;
  const total = `${count('passed')} passed, ${count('FAILED')} failed, ${count('skipped')} skipped`;
  fs.writeFileSync(o.markdown, `# Interop matrix, ${new Date().toISOString().slice(0, 10)}\n\n${md}\n\n${total}\n`);
  console.log(md);
  console.log(`\ninterop: ${total}`);
  if (count('FAILED') || !rows.length) return 1;
  return count('skipped') ? 77 : 0;
}

function main() {
  const [what, ...rest] = process.argv.slice(2);
  const o = options(rest);
  if (what === 'matrix') process.exit(matrix(o));
  let row;
  if (what === 'call') row = callRow(o);
  else if (what === 'note' && ['skipped', 'FAILED'].includes(o.result)) {
    row = { case: o.case, peer: o.peer, direction: o.direction, profile: o.profile, codec: o.codec,
            result: o.result, why: o.why, door: '', peerFigures: '', wire: '', videoCodec: '-' };
  } else throw new Error('usage: see the header');
  fs.appendFileSync(o.results, `${JSON.stringify(row)}\n`);
  console.log(line(row));
  if (row.wire) console.log(`interop:   SIP: ${row.wire}`);
}

main();
