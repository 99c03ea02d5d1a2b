local function tree(depth, value)
  local node = {value = value}
  if depth > 0 then
    node.left = tree(depth - 1, 2 * value)
    node.right = tree(depth - 1, 2 * value + 1)
  end
  return node
end
local function total(node, depth)
  if depth == 0 then return node.value end
  return node.value + total(node.left, depth - 1) - total(node.right, depth - 1)
end
local function leftmost(node)
  if not node.left then return node.value end
  return leftmost(node.left)
end

local depth = math.tointeger(arg[1])
for i = 1, 6 do
  local root = tree(depth, i)
  print(i .. " " .. total(root, depth) .. " " .. leftmost(root))
end
